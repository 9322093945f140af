// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "Control/ControlClient.h"
#include "Support/Instant.h"

namespace vimbrel {

/// Calls one method of the running application. On failure the user has been told on standard error and the
/// error is the exit status.
[[nodiscard]] std::expected<nlohmann::json, int> ask(
    std::string_view method, const nlohmann::json& params,
    std::chrono::milliseconds timeout = std::chrono::seconds(10));

/// Says on standard error what went wrong and what to do; returns the exit status.
int reportFailure(const ControlClientError& error);
/// Says on standard error what is wrong; returns the exit status of a failure.
int reportProblem(const std::string& problem);
/// The same for a command line that cannot be meant.
int reportUsage(const std::string& message);

/// Whether that answers a question with yes, in English or in the user's language.
[[nodiscard]] bool isYes(const std::string& answer);

void printJson(const nlohmann::json& document);
void printLines(const std::vector<std::string>& lines);
[[nodiscard]] Instant currentTime();
/// "2026-03-07T14:00:00Z" by the user's clock: "2026-03-07 15:00"; empty when it is no time.
[[nodiscard]] std::string localTime(const std::string& iso8601);

}  // namespace vimbrel
