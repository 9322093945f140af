// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>

#include "Control/ControlServer.h"
#include "Control/ControlledApplication.h"

namespace vimbrel {

/// Every setting by its key.
[[nodiscard]] nlohmann::json settingValues(const SettingsStore& settings);

/// "settings.list", "settings.get", "settings.set" and "settings.reset".
void addSettingsMethods(ControlServer& server, const ControlledApplication& application);

}  // namespace vimbrel
