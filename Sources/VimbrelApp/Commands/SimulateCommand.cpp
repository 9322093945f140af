// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <expected>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Simulate/ScenarioRun.h"
#include "Support/AtomicFile.h"
#include "Support/Log.h"
#include "Support/VimbrelWritePolicy.h"
#include "Terminal/DisplayText.h"
#include "Terminal/HistoryView.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

constexpr std::size_t maximumScenarioBytes = 4U << 20U;

volatile std::sig_atomic_t caught = 0;
void onSignal(int number) { caught = number; }

/// While it exists, signals that would end the process are only noted, so that it can clean up; with it goes
/// the process, by the signal that came. One that was ignored before stays so, as under nohup.
class EndingSignals {
 public:
  EndingSignals() {
    for (std::size_t i = 0; i < numbers.size(); ++i) {
      ::sigaction(numbers[i], nullptr, &before_[i]);
      if (before_[i].sa_handler == SIG_IGN) continue;
      struct sigaction action{};  // Without SA_RESTART: a reader that reads no more must not keep us.
      action.sa_handler = onSignal;
      ::sigaction(numbers[i], &action, nullptr);
    }
  }
  EndingSignals(const EndingSignals&) = delete;
  EndingSignals& operator=(const EndingSignals&) = delete;
  ~EndingSignals() {
    for (std::size_t i = 0; i < numbers.size(); ++i) ::sigaction(numbers[i], &before_[i], nullptr);
    if (hasCome()) std::raise(caught);
  }
  static bool hasCome() { return caught != 0; }

 private:
  /// SIGPIPE among them: a pager that was left is an ordinary end.
  static constexpr std::array numbers{SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};
  std::array<struct sigaction, numbers.size()> before_{};
};

/// Where the run keeps its files, removed with them.
struct ScratchDirectory {
  const std::string parent = temporaryDirectory();
  std::string path = parent + "/vimbrel-simulate-XXXXXX";
  const bool isMade = VimbrelWritePolicy::mayWrite(path) && ::mkdtemp(path.data()) != nullptr;
  ScratchDirectory() = default;
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() {
    std::error_code ignored;  // What cannot be removed is the system's to clean.
    if (isMade) std::filesystem::remove_all(path, ignored);
  }

 private:
  /// One that the write policy knows, which leaves out what else the standard library would look at.
  static std::string temporaryDirectory() {
    const char* value = std::getenv("TMPDIR");
    return value != nullptr && value[0] == '/' ? value : "/tmp";
  }
};

std::expected<std::vector<ProtectionEpisode>, std::string> runInScratchDirectory(
    const Scenario& scenario, const std::function<void(const ScenarioEvent&)>& happened) {
  const EndingSignals signals;  // Before the directory, so that none leaves it behind.
  const ScratchDirectory scratch;
  if (!scratch.isMade) {
    return std::unexpected("a directory for the run cannot be made in " + scratch.parent);
  }
  return runScenario(scenario, scratch.path, happened, EndingSignals::hasCome);
}

Tone toneOf(ScenarioEvent::Kind kind) {
  if (kind == ScenarioEvent::Kind::story) return Tone::strong;
  if (kind == ScenarioEvent::Kind::cause) return Tone::dim;
  return kind == ScenarioEvent::Kind::notice ? Tone::warning : Tone::plain;
}

int failed(const std::string& file, const std::string& problem) {
  return reportProblem(file + ": " + problem);
}

}  // namespace

int simulateCommand(const std::string& file, Output output) {
  // What a scenario prints is compared with what it printed before.
  const InEnglish english;
  const auto text = readFile(file, maximumScenarioBytes);
  if (!text) return failed(file, text.error().text());
  const auto scenario = parseScenario(*text);
  if (!scenario) return failed(file, scenario.error());
  // A scenario happens nowhere in particular.
  ::setenv("TZ", "UTC", 1);
  logging::setSink([](LogLevel, auto, std::string_view, auto) {});  // It would tell of virtual times.

  const auto palette = Palette::forDescriptor(STDOUT_FILENO);
  json events = json::array();
  const auto episodes = runInScratchDirectory(*scenario, [&](const ScenarioEvent& event) {
    if (output == Output::json) {
      events.push_back(
          {{"at", formatIso8601(event.at)}, {"kind", rawValue(event.kind)}, {"text", event.text}});
    } else if (!EndingSignals::hasCome()) {  // Whoever sent one may read no more.
      std::printf("%s\n", palette.paint(toneOf(event.kind), displayable(lineOf(event))).c_str());
    }
  });
  if (!episodes) return failed(file, episodes.error());
  json list = json::array();
  for (const auto& episode : *episodes) list.push_back(json(toJson(episode)));
  json history{{"episodes", std::move(list)}, {"totals", json(toJson(totalsOf(*episodes)))}};
  if (output == Output::json) {
    printJson({{"events", std::move(events)}, {"history", std::move(history)}});
    return exitCode::done;
  }
  std::printf("\n");
  printLines(historyLines(history, outputWidth(STDOUT_FILENO), palette, scenario->start + scenario->length));
  return exitCode::done;
}

}  // namespace vimbrel
