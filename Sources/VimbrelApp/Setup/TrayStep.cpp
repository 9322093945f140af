// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>

#include "Say.h"
#include "Setup/HostSetup.h"
#include "Setup/SetupSteps.h"

namespace vimbrel {
namespace {

using Answer = Conversation::Answer;
using Outcome = StepReport::Outcome;

bool isSet(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0';
}

}  // namespace

StepReport trayStep(Conversation& talk, const std::string& tray) {
  talk.heading(say("Tray"));
  if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) {
    talk.tell(say("There is no desktop here; on a terminal, vimbrel watch shows the same."));
    return {Outcome::notNeeded, say("no desktop here")};
  }
  if (tray.empty()) {
    talk.tell(say(
        "It is not installed. With the package vimbrel-tray, the desktop's panel shows what vimbrel watch "
        "does:"));
    talk.show("sudo apt install ./vimbrel-tray_*.deb");
    return {Outcome::notNeeded, say("not installed")};
  }
  auto ready = say("starts at login");
  const bool isStarted = isTrayStartedAtLogin();
  if (!isStarted) {
    talk.tell(say("This desktop does not start it at login. Add this to the programs that yours starts:"));
    talk.show(tray);
    ready = say("nothing starts it at login");
  }
  if (isTrayRunning()) {
    talk.tell(isStarted ? say("It starts at login, and is in the panel.") : say("It is in the panel."));
    return {Outcome::ready, say("%1, and is in the panel", {ready})};
  }
  const auto answer = talk.propose(say("Show it in the panel now"));
  if (answer == Answer::stop) return {Outcome::stopped, ""};
  if (answer == Answer::no) return {Outcome::skipped, ready};
  if (const auto started = startInBackground(tray, {}); !started) {
    talk.tell(started.error(), Tone::bad);
    return {Outcome::failed, started.error()};
  }
  return {Outcome::ready, say("%1, and was started", {ready})};
}

}  // namespace vimbrel
