// SPDX-License-Identifier: Apache-2.0
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/AgentChoice.h"
#include "Commands/Clipboard.h"
#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/AgentDocuments.h"
#include "Control/ControlSocketPath.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

/// Waits for the running application to hear of one agent.
class FirstEvent {
 public:
  explicit FirstEvent(AgentType agent)
      : agent_(rawValue(agent)), client_(ControlClient::connect(controlSocketPath())) {
    if (!client_) return;
    // What was heard before the user was told what to do is no proof of it.
    const auto state = client_->call("status", json::object());
    if (!state) {
      client_ = std::unexpected(state.error());
      return;
    }
    before_ = countIn(*state);
    if (const auto answer = client_->call("subscribe", json::object()); !answer) {
      client_ = std::unexpected(answer.error());
    }
  }

  [[nodiscard]] std::optional<ControlClientError> problem() const {
    return client_ ? std::nullopt : std::optional(client_.error());
  }

  /// The state in which it was heard.
  std::expected<json, ControlClientError> wait() {
    for (;;) {
      auto state = client_->nextNotification(std::chrono::minutes(10));
      if (!state) {
        if (state.error().fault == ControlClientError::Fault::timedOut) continue;
        return state;
      }
      if (countIn(*state) > before_) return state;
    }
  }

 private:
  [[nodiscard]] std::uint64_t countIn(const json& state) const {
    const json::json_pointer count("/lastEvents/" + agent_ + "/count");
    return state.contains(count) ? state[count].get<std::uint64_t>() : 0;
  }

  const std::string agent_;
  std::expected<ControlClient, ControlClientError> client_;
  std::uint64_t before_ = 0;
};

std::string text(const ordered_json& document, const char* key) {
  const auto member = document.find(key);
  return member != document.end() && member->is_string() ? member->get<std::string>() : std::string{};
}

/// What stands in the document, to be read and copied by people: the form of today's versions first.
void printSetup(const ordered_json& document) {
  const auto name = text(document, "displayName");
  const auto path = text(document, "currentConfigPath");
  if (!path.empty()) {
    std::printf("%s: put this into %s\n", name.c_str(), displayable(path).c_str());
    std::printf("It fits %s.\n\n", text(document, "currentAgentVersions").c_str());
    std::printf("%s\n%s\n", text(document, "currentSetupSnippet").c_str(),
                text(document, "currentSetupInstructions").c_str());
  }
  for (const auto& file : document.at("configuredIn")) {
    std::printf("\nThe relay is named in %s already.\n", displayable(file.get<std::string>()).c_str());
  }
  const auto snippet = text(document, "manualSetupSnippet");
  if (!snippet.empty()) {
    std::printf("\nOnly if your %s is older than that: use this instead, in %s:\n\n%s\n\n%s\n", name.c_str(),
                text(document, "targetConfigPath").c_str(), snippet.c_str(),
                text(document, "manualSetupInstructions").c_str());
  } else {
    std::printf("\nWithout hooks: %s\n", text(document, "manualSetupInstructions").c_str());
  }
}

}  // namespace

int agentSetupCommand(const AgentSetupOptions& options, Output output) {
  const auto adapter = chooseAgent(options.agent);
  if (!adapter) return exitCode::usage;
  const auto document = agentSetupDocument(*adapter, {options.relay, options.socket});
  std::optional<FirstEvent> event;
  if (options.waits) event.emplace(adapter->agentType());
  if (output == Output::json) {
    std::puts(document.dump(2, ' ', false, ordered_json::error_handler_t::replace).c_str());
  } else {
    printSetup(document);
  }
  std::fflush(stdout);
  if (options.copies) {
    const auto copied = copyToClipboard(text(document, "currentSetupSnippet"));
    if (!copied) {
      std::fprintf(stderr, "vimbrel: %s\n", copied.error().c_str());
      return exitCode::failed;
    }
    std::fprintf(stderr, "Copied by %s.\n", copied->c_str());
  }
  if (!event) return exitCode::done;
  if (const auto problem = event->problem()) return reportFailure(*problem);
  const auto name = text(document, "displayName");
  std::fprintf(stderr, "\nWaiting for the first event of %s; Ctrl-C ends the waiting, nothing else.\n",
               name.c_str());
  const auto state = event->wait();
  if (!state) return reportFailure(state.error());
  const auto reported = agentStateFromRawValue(
      (*state)["lastEvents"][std::string(rawValue(adapter->agentType()))].value("state", ""));
  if (output == Output::text) {
    std::printf("received: %s reports %s\n%s\n", name.c_str(),
                reported ? std::string(displayLabel(*reported)).c_str() : "something",
                displayable(state->value("statusDescription", "")).c_str());
  }
  return exitCode::done;
}

}  // namespace vimbrel
