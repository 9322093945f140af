// SPDX-License-Identifier: Apache-2.0
#include "Setup/SetupCommand.h"

#include <unistd.h>

#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>
#include <vector>

#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "InstalledPrograms.h"
#include "Say.h"
#include "Setup/SetupSteps.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Table.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {
namespace {

using Manner = Conversation::Manner;
using Outcome = StepReport::Outcome;

struct NamedReport {
  std::string name;
  StepReport report;
};

std::string wordFor(Outcome outcome) {
  switch (outcome) {
    case Outcome::ready:
      return sayAs("outcome", "ready");
    case Outcome::skipped:
      return sayAs("outcome", "skipped");
    case Outcome::notNeeded:
      return "-";
    case Outcome::open:
      return sayAs("outcome", "open");
    case Outcome::failed:
      return sayAs("outcome", "failed");
    case Outcome::stopped:
      break;
  }
  return sayAs("outcome", "stopped");
}

Tone toneOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::ready:
      return Tone::good;
    case Outcome::failed:
      return Tone::bad;
    case Outcome::open:
      return Tone::warning;
    default:
      return Tone::dim;
  }
}

void introduce(Conversation& talk) {
  std::printf("%s\n", talk.palette().paint(Tone::strong, say("Setting up Vimbrel")).c_str());
  switch (talk.manner()) {
    case Manner::asks:
      talk.tell(say(
          "Nothing is changed before you say yes, and no agent's configuration ever. Enter takes the answer "
          "in capitals, n skips a step, q or Ctrl-C ends here; run it again at any time."));
      break;
    case Manner::agrees:
      talk.tell(say("Every recommended change is made without asking; no agent's configuration is touched."));
      break;
    case Manner::rehearses:
      talk.tell(say("Nothing is changed."));
      break;
  }
}

void summarise(const Conversation& talk, const std::vector<NamedReport>& reports) {
  Table table({"", "", ""});
  for (const auto& [name, report] : reports) {
    table.addRow({{name}, {wordFor(report.outcome), toneOf(report.outcome)}, {report.text}});
  }
  std::puts("");
  printLines(table.lines(outputWidth(STDOUT_FILENO), talk.palette()));
}

/// The desktop's own introduction has nothing left to say.
void finishIntroduction() {
  if (auto client = ControlClient::connect(controlSocketPath())) {
    (void)client->call("settings.set", {{"key", "hasCompletedOnboarding"}, {"value", true}});
  }
}

}  // namespace

bool isOnTerminal() { return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1; }

int setupCommand(const SetupOptions& options) {
  const auto manner = options.rehearses ? Manner::rehearses : options.agrees ? Manner::agrees : Manner::asks;
  if (manner == Manner::asks && !isOnTerminal()) {
    return reportUsage(say("setup asks first; without a terminal, give --yes or --dry-run"));
  }
  Conversation talk(manner);
  introduce(talk);
  const std::pair<const char*, std::function<StepReport()>> steps[] = {
      {toSay("Service"), [&] { return serviceStep(talk); }},
      {toSay("Agents"), [&] { return agentStep(talk, installedRelay(options.program).value_or("")); }},
      {toSay("Tray"), [&] { return trayStep(talk, installedTray(options.program).value_or("")); }},
      {toSay("Closed lid"), [&] { return helperStep(talk); }},
  };
  std::vector<NamedReport> reports;
  bool hasFailed = false;
  bool isStopped = false;
  for (const auto& [name, run] : steps) {
    isStopped = talk.endingSignal().has_value();
    if (isStopped) break;
    auto report = run();
    isStopped = report.outcome == Outcome::stopped;
    if (isStopped) break;
    hasFailed = hasFailed || report.outcome == Outcome::failed;
    reports.push_back({say(name), std::move(report)});
  }
  if (!isStopped && manner != Manner::rehearses) finishIntroduction();
  if (isStopped) std::puts("");
  if (!reports.empty()) summarise(talk, reports);
  if (isStopped) {
    printLines({"", say("Ended here; what is listed above stays. To go on: vimbrel setup")});
  } else if (manner != Manner::rehearses) {
    printLines({"", say("See what it does: vimbrel watch. Try what it can: vimbrel doctor")});
  }
  std::fflush(stdout);
  if (const auto signal = talk.endingSignal()) return 128 + *signal;
  return hasFailed ? exitCode::failed : exitCode::done;
}

}  // namespace vimbrel
