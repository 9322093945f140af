// SPDX-License-Identifier: Apache-2.0
#include "Commands/ControlSession.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Control/RpcError.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/Clock.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {

using nlohmann::json;

std::expected<json, int> ask(std::string_view method, const json& params, std::chrono::milliseconds timeout) {
  auto client = ControlClient::connect(controlSocketPath());
  if (!client) return std::unexpected(reportFailure(client.error()));
  auto answer = client->call(method, params, timeout);
  if (!answer) return std::unexpected(reportFailure(answer.error()));
  return std::move(*answer);
}

int reportFailure(const ControlClientError& error) {
  if (error.fault == ControlClientError::Fault::notRunning) {
    (void)reportProblem(say("Vimbrel is not running. Start it with: vimbrel run"));
    return exitCode::notRunning;
  }
  (void)reportProblem(retell(error.text));
  if (error.fault == ControlClientError::Fault::refused) {
    if (error.code == static_cast<int>(RpcFault::methodNotFound)) {
      std::fprintf(stderr, "%s\n",
                   say("The running Vimbrel is of another version. Start it anew with: vimbrel run").c_str());
    }
    if (error.code == static_cast<int>(RpcFault::invalidParams)) return exitCode::usage;
  }
  return exitCode::failed;
}

int reportProblem(const std::string& problem) {
  std::fprintf(stderr, "vimbrel: %s\n", displayable(problem).c_str());
  return exitCode::failed;
}

int reportUsage(const std::string& message) {
  (void)reportProblem(message);
  return exitCode::usage;
}

bool isYes(const std::string& answer) {
  const auto letter = sayAs("answer", "y");
  return answer == "y" || answer == "Y" || answer == "yes" || answer == letter ||
         answer == sayAs("answer", "Y") || answer == sayAs("answer", "yes");
}

void printJson(const json& document) {
  std::puts(document.dump(2, ' ', false, json::error_handler_t::replace).c_str());
}

void printLines(const std::vector<std::string>& lines) {
  for (const auto& line : lines) std::puts(line.c_str());
}

Instant currentTime() { return SystemClock().now(); }

std::string localTime(const std::string& iso8601) {
  const auto instant = parseIso8601(iso8601);
  return instant ? localMinuteText(*instant) : "";
}

}  // namespace vimbrel
