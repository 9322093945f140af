// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>

#include "Domain/DecodeError.h"
#include "Domain/PowerSourceSnapshot.h"

namespace vimbrel {

/// An object with the field names as keys; absent fields are left out.
[[nodiscard]] nlohmann::ordered_json toJson(const PowerSourceSnapshot& snapshot);
[[nodiscard]] std::expected<PowerSourceSnapshot, DecodeError> powerSourceSnapshotFromJson(
    const nlohmann::json& json);

}  // namespace vimbrel
