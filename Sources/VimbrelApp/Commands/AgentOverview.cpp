// SPDX-License-Identifier: Apache-2.0
#include "Commands/AgentOverview.h"

#include <cstdlib>

#include "Commands/ControlSession.h"
#include "Control/AgentDocuments.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"

namespace vimbrel {

using nlohmann::json;

namespace {

/// This shell's variables, because a running application may know fewer places.
json callersEnvironment() {
  json environment = json::object();
  for (const auto* name : AgentEnvironment::variableNames()) {
    if (const char* value = std::getenv(name)) environment[name] = value;
  }
  return environment;
}

}  // namespace

std::expected<json, int> agentOverview() {
  auto client = ControlClient::connect(controlSocketPath());
  if (client) {
    auto answer = client->call("agents", {{"environment", callersEnvironment()}});
    if (!answer) return std::unexpected(reportFailure(answer.error()));
    return answer->value("agents", json::array());
  }
  if (client.error().fault != ControlClientError::Fault::notRunning) {
    return std::unexpected(reportFailure(client.error()));
  }
  (void)reportProblem(
      say("Vimbrel is not running, so nothing is known of what runs and what reported. Start it with: "
          "vimbrel run"));
  return json(agentsDocument(AgentRegistry(AgentEnvironment::fromProcess()), {}));
}

}  // namespace vimbrel
