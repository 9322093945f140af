// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/AgentChoice.h"
#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Support/Subprocess.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

/// One report, made as the agent makes it.
struct Trial {
  std::string session;
  std::string commandLine;
  std::string standardInput;
};

Trial trialOf(const CurrentSetup& setup, IntegrationType type) {
  Trial trial;
  trial.session = "vimbrel-test-" + std::to_string(::getpid());
  const auto working = std::ranges::find(setup.reports, AgentState::working, &HookReport::state);
  trial.commandLine = (working != setup.reports.end() ? *working : setup.reports.front()).commandLine;
  if (setup.sessionKey.empty()) {
    trial.commandLine += " --session-id " + trial.session;
    // This program is not the agent's process; the next scan would end a session that said so.
    if (type == IntegrationType::process) trial.commandLine += " --no-pid";
  } else {
    trial.standardInput = json{{setup.sessionKey, trial.session}}.dump() + "\n";
  }
  return trial;
}

/// The session and the state that the application has after the report; absent when it did not come.
std::expected<std::optional<json>, ControlClientError> stateWith(ControlClient& client,
                                                                 const std::string& session,
                                                                 std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  for (;;) {
    auto state = client.call("status", json::object());
    if (!state) return std::unexpected(state.error());
    for (const auto& each : state->value("sessions", json::array())) {
      if (each.value("id", "") == session) return std::optional(std::move(*state));
    }
    if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
    // The application has answered the relay; what is left is its own work of a moment.
    ::poll(nullptr, 0, 10);
  }
}

json sessionIn(const json& state, const std::string& id) {
  for (const auto& each : state.at("sessions")) {
    if (each.value("id", "") == id) return each;
  }
  return nullptr;
}

std::string problemOf(const std::expected<SubprocessResult, SubprocessFault>& run, const std::string& relay) {
  if (!run) return say("the command line could not be run, or did not end in 3 seconds");
  if (run->exitStatus == 126 || run->exitStatus == 127) return say("%1 cannot be run", {relay});
  if (run->exitStatus != 0) {
    return say("the relay ended with status %1", {std::to_string(run->exitStatus)});
  }
  return say("the relay ran, but nothing arrived within 3 seconds; see: vimbrel doctor");
}

}  // namespace

int agentTestCommand(const std::string& agent, const std::string& relay, Output output) {
  const auto adapter = chooseAgent(agent);
  if (!adapter) return exitCode::usage;
  const auto trial = trialOf(*adapter->currentSetup({relay, ""}), adapter->integrationType());

  auto client = ControlClient::connect(controlSocketPath());
  if (!client) return reportFailure(client.error());
  // The session lasts as long as this connection: however this program ends, nothing of it stays.
  if (const auto begun = client->call("agents.trial", {{"session", trial.session}}); !begun) {
    return reportFailure(begun.error());
  }
  const auto run = runProgram("/bin/sh", {"-c", trial.commandLine}, {.input = trial.standardInput});
  const bool isSent = run && run->exitStatus == 0;
  const auto state = stateWith(*client, trial.session, isSent ? 3s : 0s);
  if (!state) return reportFailure(state.error());
  const bool isReceived = state->has_value();
  const auto session = isReceived ? sessionIn(**state, trial.session) : json(nullptr);
  const auto decision = isReceived ? (*state)->value("statusDescription", "") : "";

  if (output == Output::json) {
    printJson({{"agentType", rawValue(adapter->agentType())},
               {"displayName", displayName(adapter->agentType())},
               {"relayPath", relay},
               {"commandLine", trial.commandLine},
               {"standardInput", trial.standardInput},
               {"received", isReceived},
               {"session", session},
               {"statusDescription", isReceived ? json(decision) : json(nullptr)}});
  } else {
    printLines({say("As %1 would:", {retell(displayName(adapter->agentType()))}),
                "  $ " + displayable(trial.commandLine)});
    if (!trial.standardInput.empty()) {
      std::printf("  %s", say("with on its input: %1", {trial.standardInput}).c_str());
    }
    if (isReceived) {
      printLines({"", say("received; while it was there, Vimbrel had this session:"), ""});
      printLines(sessionLines(json::array({session}), outputWidth(STDOUT_FILENO),
                              Palette::forDescriptor(STDOUT_FILENO), currentTime()));
      printLines({"", displayable(retell(decision))});
    }
  }
  if (isReceived) return exitCode::done;
  std::fflush(stdout);
  return reportProblem(problemOf(run, displayable(relay)));
}

}  // namespace vimbrel
