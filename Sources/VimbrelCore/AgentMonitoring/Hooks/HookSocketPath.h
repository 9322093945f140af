// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace vimbrel {

/// Where the hook socket stands below the application-support directory.
inline constexpr std::string_view hookSocketBelowApplicationSupport = "/Vimbrel/run/vimbrel.sock";

/// The path on which the receiver listens and to which the relay sends unless told otherwise. Worked out from
/// the environment at each call (see `directories::applicationSupport`). Any thread.
[[nodiscard]] std::string defaultHookSocketPath();

}  // namespace vimbrel
