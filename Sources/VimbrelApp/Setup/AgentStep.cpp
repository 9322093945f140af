// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "AgentMonitoring/AgentRegistry.h"
#include "Commands/AgentOverview.h"
#include "Commands/AgentSetupText.h"
#include "Commands/Clipboard.h"
#include "Commands/FirstEvent.h"
#include "Control/AgentDocuments.h"
#include "Say.h"
#include "Setup/SetupSteps.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {
namespace {

using nlohmann::json;
using Answer = Conversation::Answer;
using Outcome = StepReport::Outcome;

enum class Connection { connected, left, stopped };

bool isConnected(const json& agent) { return !agent.value("configuredIn", json::array()).empty(); }

/// Those whose hooks tell more than their processes are worth a question by default.
bool reportsByHooks(const json& agent) {
  return agent.value("integrationType", "") != rawValue(IntegrationType::process);
}

std::string nameAndVersion(const json& agent) {
  auto name = retell(agent.value("displayName", ""));
  if (const auto version = agent.value("agentVersion", ""); !version.empty())
    name += " (" + retell(version) + ")";
  return name;
}

Connection waitForFirstEvent(Conversation& talk, FirstEvent& event) {
  if (const auto problem = event.problem()) {
    talk.tell(say("Whether it works cannot be seen: %1", {retell(problem->text)}), Tone::warning);
    return Connection::left;
  }
  talk.tell(say(
      "Paste it, then give the agent something to do. Waiting for its first event; Enter goes on without."));
  for (;;) {
    const auto state = event.arrived();
    if (state) {
      talk.tell(say("received: %1", {event.sentence(*state)}), Tone::good);
      return Connection::connected;
    }
    if (state.error().fault != ControlClientError::Fault::timedOut) {
      talk.tell(retell(state.error().text), Tone::bad);
      return Connection::left;
    }
    switch (talk.waitFor(event.descriptor())) {
      case Conversation::Event::readable:
        break;
      case Conversation::Event::goOn:
        return Connection::left;
      case Conversation::Event::stop:
        return Connection::stopped;
    }
  }
}

Connection connect(Conversation& talk, const AgentAdapter& adapter, const std::string& relay) {
  // From before the person knows what to paste.
  FirstEvent event(adapter.agentType());
  const auto document = agentSetupDocument(adapter, {relay, ""});
  std::puts("");
  printAgentSetup(document);
  std::puts("");
  if (const auto snippet = setupText(document, "currentSetupSnippet"); !snippet.empty()) {
    const auto answer = talk.ask(say("Copy what is to be pasted to the clipboard?"));
    if (answer == Answer::stop) return Connection::stopped;
    if (answer == Answer::yes) {
      const auto copied = copyToClipboard(snippet);
      talk.tell(copied ? say("Copied by %1.", {*copied}) : copied.error(),
                copied ? Tone::plain : Tone::warning);
    }
  }
  return waitForFirstEvent(talk, event);
}

std::string listed(const std::vector<std::string>& names) {
  std::string list;
  for (const auto& name : names) list += (list.empty() ? "" : ", ") + name;
  return list;
}

}  // namespace

StepReport agentStep(Conversation& talk, const std::string& relay) {
  talk.heading(say("Agents"));
  if (relay.empty()) {
    talk.tell(say("vimbrel-relay, which agents' hooks run, is installed neither beside this program nor on "
                  "the search "
                  "path."),
              Tone::bad);
    return {Outcome::failed, say("vimbrel-relay is not installed")};
  }
  const auto agents = agentOverview();
  if (!agents) return {Outcome::failed, say("the application does not answer")};
  const AgentRegistry registry(AgentEnvironment::fromProcess());
  std::vector<std::string> connected;
  std::vector<std::string> left;
  for (const auto& agent : *agents) {
    if (!agent.value("isInstalled", false)) continue;
    const auto name = retell(agent.value("displayName", ""));
    const auto raw = agent.value("agentType", "");
    if (isConnected(agent)) {
      talk.tell(say("%1 is connected.", {nameAndVersion(agent)}));
      connected.push_back(name);
      continue;
    }
    const auto type = agentTypeFromRawValue(raw);
    const auto adapter = type ? registry.adapter(*type) : nullptr;
    if (adapter == nullptr) continue;
    talk.tell(reportsByHooks(agent) ? say("%1 is here and not connected.", {nameAndVersion(agent)})
                                    : say("%1 is recognised while it runs; its hooks would tell more.",
                                          {nameAndVersion(agent)}));
    const auto answer = talk.ask(say("See how it is connected?"), reportsByHooks(agent));
    if (answer == Answer::stop) return {Outcome::stopped, ""};
    auto connection = Connection::left;
    if (answer == Answer::yes) connection = connect(talk, *adapter, relay);
    if (connection == Connection::stopped) return {Outcome::stopped, ""};
    if (connection == Connection::connected) {
      connected.push_back(name);
    } else if (reportsByHooks(agent)) {
      if (answer == Answer::no) talk.show("vimbrel agents setup " + raw);
      left.push_back(name);
    }
  }
  if (connected.empty() && left.empty()) {
    talk.tell(
        say("None of the agents that report by themselves is here. Once one is: vimbrel agents setup AGENT"));
    return {Outcome::notNeeded, say("none to connect")};
  }
  auto text = connected.empty() ? "" : say("connected: %1", {listed(connected)});
  if (!left.empty()) text += (text.empty() ? "" : "; ") + say("not connected: %1", {listed(left)});
  return {left.empty() ? Outcome::ready : Outcome::open, text};
}

}  // namespace vimbrel
