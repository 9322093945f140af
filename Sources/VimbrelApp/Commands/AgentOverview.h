// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json.hpp>

namespace vimbrel {

/// What is known of every agent (the method "agents" of the control protocol): from the running application
/// or, without one, by looking from here, which the user is told. On failure the user has been told and the
/// error is the exit status. Blocks for up to 3 seconds.
[[nodiscard]] std::expected<nlohmann::json, int> agentOverview();

}  // namespace vimbrel
