// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/AgentChoice.h"
#include "Commands/AgentSetupText.h"
#include "Commands/Clipboard.h"
#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Commands/FirstEvent.h"
#include "Control/AgentDocuments.h"
#include "Say.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {

using nlohmann::ordered_json;

int agentSetupCommand(const AgentSetupOptions& options, Output output) {
  const auto adapter = chooseAgent(options.agent);
  if (!adapter) return exitCode::usage;
  const auto document = agentSetupDocument(*adapter, {options.relay, options.socket});
  std::optional<FirstEvent> event;
  if (options.waits) event.emplace(adapter->agentType());
  if (output == Output::json) {
    std::puts(document.dump(2, ' ', false, ordered_json::error_handler_t::replace).c_str());
  } else {
    printAgentSetup(document);
  }
  std::fflush(stdout);
  if (options.copies) {
    const auto copied = copyToClipboard(setupText(document, "currentSetupSnippet"));
    if (!copied) {
      return reportProblem(copied.error());
    }
    std::fprintf(stderr, "%s\n", say("Copied by %1.", {*copied}).c_str());
  }
  if (!event) return exitCode::done;
  if (const auto problem = event->problem()) return reportFailure(*problem);
  std::fprintf(stderr, "\n%s\n",
               say("Waiting for the first event of %1; Ctrl-C ends the waiting, nothing else.",
                   {setupText(document, "displayName")})
                   .c_str());
  const auto state = event->wait();
  if (!state) return reportFailure(state.error());
  if (output == Output::text) {
    printLines({say("received: %1", {event->sentence(*state)}),
                displayable(retell(state->value("statusDescription", "")))});
  }
  return exitCode::done;
}

}  // namespace vimbrel
