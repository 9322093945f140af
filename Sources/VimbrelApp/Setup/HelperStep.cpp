// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Control/ControlClient.h"
#include "Control/ControlSocketPath.h"
#include "DeepHold/HelperSocketPath.h"
#include "Say.h"
#include "Setup/HostSetup.h"
#include "Setup/SetupSteps.h"

namespace vimbrel {
namespace {

using nlohmann::json;
using Answer = Conversation::Answer;
using Outcome = StepReport::Outcome;

/// One finding of `vimbrel doctor`; null when there is none.
json findingOf(const json& examination, const std::string& subject) {
  for (const auto& finding : examination.value("findings", json::array())) {
    if (finding.value("subject", "") == subject) return finding;
  }
  return nullptr;
}

std::expected<json, std::string> examination() {
  auto client = ControlClient::connect(controlSocketPath());
  if (!client) return std::unexpected(retell(client.error().text));
  // It takes and gives back a lease of two seconds.
  auto answer = client->call("doctor", json::object(), std::chrono::seconds(20));
  if (!answer) return std::unexpected(retell(answer.error().text));
  return std::move(*answer);
}

StepReport judged(Conversation& talk, const json& closedLid) {
  if (closedLid.is_null()) return {Outcome::notNeeded, say("not examined")};
  const auto explanation = retell(closedLid.value("explanation", ""));
  if (closedLid.value("verdict", "") == "works") {
    talk.tell(say("The lid may be closed while agents work: %1.", {explanation}), Tone::good);
    return {Outcome::ready, say("the lid may be closed while agents work")};
  }
  talk.tell(say("Closing the lid suspends this machine: %1", {explanation}), Tone::warning);
  if (const auto remedy = closedLid.value("remedy", ""); !remedy.empty()) talk.tell("-> " + retell(remedy));
  return {Outcome::open, explanation};
}

}  // namespace

StepReport helperStep(Conversation& talk) {
  talk.heading(say("Closed lid"));
  const auto examined = examination();
  if (!examined) {
    talk.tell(say("Vimbrel does not run, so the lid cannot be examined; once it does: vimbrel doctor"));
    return {Outcome::notNeeded, say("not examined, because Vimbrel does not run")};
  }
  const auto lid = findingOf(*examined, "lid");
  if (!lid.is_null() && lid.value("verdict", "") == "missing") {
    talk.tell(say("This machine has no lid."));
    return {Outcome::notNeeded, say("this machine has no lid")};
  }
  const auto closedLid = findingOf(*examined, "closed lid");
  if (closedLid.is_null() || closedLid.value("verdict", "") != "missing") return judged(talk, closedLid);
  if (::access(systemHelperSocketPath, F_OK) != 0) {
    talk.tell(say(
        "Closing the lid suspends this machine. With the package vimbrel-helper it stays awake while agents "
        "work:"));
    talk.show("sudo apt install ./vimbrel-helper_*.deb");
    talk.tell(say("Then run vimbrel setup again."));
    return {Outcome::open, say("closing the lid suspends this machine; the helper is not installed")};
  }
  // Its socket is looked for once, at the start of the application.
  const auto start = examineLoginStart();
  if (start.way != LoginStart::Way::service || !isServiceActive(start.unit)) {
    talk.tell(
        say("The helper was installed after Vimbrel was started. Start Vimbrel again, and it will be used."));
    return {Outcome::open, say("Vimbrel must be started again to use the helper")};
  }
  const auto answer =
      talk.propose(say("Start %1 again, so that it uses the helper that was installed", {start.unit}));
  if (answer == Answer::stop) return {Outcome::stopped, ""};
  if (answer == Answer::no) return {Outcome::skipped, say("Vimbrel must be started again to use the helper")};
  if (const auto restarted = restartService(start.unit); !restarted) {
    talk.tell(restarted.error(), Tone::bad);
    return {Outcome::failed, restarted.error()};
  }
  const auto again = examination();
  if (!again) return {Outcome::failed, again.error()};
  return judged(talk, findingOf(*again, "closed lid"));
}

}  // namespace vimbrel
