// SPDX-License-Identifier: Apache-2.0
#include <nlohmann/json.hpp>
#include <thread>

#include "Control/ControlClient.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Setup/HostSetup.h"
#include "Setup/SetupSteps.h"

namespace vimbrel {
namespace {

using nlohmann::json;
using Answer = Conversation::Answer;
using Outcome = StepReport::Outcome;
using Way = LoginStart::Way;

/// The setting follows what was done here; without an application it does so at its next start.
void adoptLoginItem() {
  if (auto client = ControlClient::connect(controlSocketPath())) {
    (void)client->call("settings.set", {{"key", "launchAtLogin"}, {"value", true}});
  }
}

bool runsSoon() {
  for (int waited = 0; waited < 200; ++waited) {
    if (isVimbrelRunning()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

StepReport failed(Conversation& talk, const std::string& reason) {
  talk.tell(reason, Tone::bad);
  return {Outcome::failed, reason};
}

/// The state of the start at login, and whether it runs now.
std::string withRunning(const std::string& state, bool isRunning) {
  return isRunning ? say("%1; it runs", {state}) : say("%1; it does not run now", {state});
}

/// What is started at login is to run now, too.
StepReport startNow(Conversation& talk, const LoginStart& found, const std::string& ready) {
  const bool isService = found.way == Way::service;
  const auto answer = talk.propose(isService && found.canUseService ? say("Start %1 now", {found.unit})
                                                                    : say("Start it now, in the background"));
  if (answer == Answer::stop) return {Outcome::stopped, ""};
  if (answer == Answer::no) return {Outcome::skipped, withRunning(ready, false)};
  const auto started = isService && found.canUseService ? restartService(found.unit)
                                                        : startInBackground(ownProgram(), {"run", "--lines"});
  if (!started) return failed(talk, started.error());
  if (!runsSoon()) return failed(talk, say("it was started and does not answer; see: vimbrel run"));
  return {Outcome::ready, withRunning(ready, true)};
}

/// The change that is proposed, as one whole sentence.
std::string serviceChange(const LoginStart& found, bool isRunning) {
  if (found.isPackaged) {
    return isRunning ? say("Enable the user service %1, from the next login on", {found.unit})
                     : say("Enable the user service %1, and start it now", {found.unit});
  }
  return isRunning ? say("Install and enable the user service %1, from the next login on", {found.unit})
                   : say("Install and enable the user service %1, and start it now", {found.unit});
}

StepReport proposeService(Conversation& talk, const LoginStart& found, bool isRunning) {
  if (isRunning) talk.tell(say("Vimbrel runs, started by hand: the next login needs something to start it."));
  const auto answer = talk.propose(serviceChange(found, isRunning));
  if (answer == Answer::stop) return {Outcome::stopped, ""};
  if (answer == Answer::no) return {Outcome::skipped, say("nothing starts it at login")};
  if (const auto done = startByService(found, !isRunning); !done) return failed(talk, done.error());
  if (!runsSoon())
    return failed(talk,
                  say("the service was started and does not answer; see: journalctl --user -u vimbrel"));
  if (isRunning) adoptLoginItem();
  return {Outcome::ready, withRunning(say("starts at login (%1)", {found.unit}), true)};
}

StepReport proposeEntry(Conversation& talk, bool isRunning) {
  const auto answer = talk.propose(say("Have the desktop start it at each login"));
  if (answer == Answer::stop) return {Outcome::stopped, ""};
  if (answer == Answer::yes) {
    if (const auto done = startByDesktop(); !done) return failed(talk, done.error());
    if (isRunning) adoptLoginItem();
  }
  const auto ready =
      answer == Answer::yes ? say("starts at login (by the desktop)") : say("nothing starts it at login");
  if (isRunning) return {answer == Answer::yes ? Outcome::ready : Outcome::skipped, withRunning(ready, true)};
  return startNow(talk, {.way = Way::desktop}, ready);
}

}  // namespace

bool isVimbrelRunning() {
  auto client = ControlClient::connect(controlSocketPath());
  return client && client->call("version", json::object()).has_value();
}

StepReport serviceStep(Conversation& talk) {
  talk.heading(say("Service"));
  const auto found = examineLoginStart();
  const bool isRunning = isVimbrelRunning();
  if (found.hasBoth) {
    talk.tell(say("Both %1 and an autostart entry of the desktop would start it at login.", {found.unit}));
    const auto answer = talk.propose(say("Remove the autostart entry, so that the service alone starts it"));
    if (answer == Answer::stop) return {Outcome::stopped, ""};
    if (answer == Answer::yes) {
      if (const auto removed = removeDesktopEntry(); !removed) return failed(talk, removed.error());
    }
  }
  if (found.way == Way::none) {
    if (found.canUseService) return proposeService(talk, found, isRunning);
    if (found.canUseDesktop) return proposeEntry(talk, isRunning);
    talk.tell(say(
        "Neither a service manager nor a desktop was found here. Start this however you start programs at "
        "login:"));
    talk.show("vimbrel run --lines");
    if (isRunning) return {Outcome::open, say("runs; nothing starts it at login")};
    return startNow(talk, found, say("nothing starts it at login"));
  }
  const auto ready = found.way == Way::service ? say("starts at login (%1)", {found.unit})
                                               : say("starts at login (by the desktop)");
  if (!isRunning) {
    talk.tell(say("It %1, but does not run now.", {ready}));
    return startNow(talk, found, ready);
  }
  talk.tell(say("It %1, and runs.", {ready}));
  return {Outcome::ready, withRunning(ready, true)};
}

}  // namespace vimbrel
