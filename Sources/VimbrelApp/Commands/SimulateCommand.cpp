// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Simulate/ScenarioRun.h"
#include "Support/AtomicFile.h"
#include "Support/Log.h"
#include "Terminal/DisplayText.h"
#include "Terminal/HistoryView.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

constexpr std::size_t maximumScenarioBytes = 4U << 20U;

/// Where the run keeps its files, removed with them.
struct ScratchDirectory {
  char path[32] = "/tmp/vimbrel-simulate-XXXXXX";
  const bool isMade = ::mkdtemp(path) != nullptr;
  ScratchDirectory() = default;
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() {
    std::error_code ignored;  // What cannot be removed is the system's to clean.
    if (isMade) std::filesystem::remove_all(path, ignored);
  }
};

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
  const ScratchDirectory scratch;
  if (!scratch.isMade) return failed("/tmp", "a directory for the run cannot be made there");
  // A scenario happens nowhere in particular.
  ::setenv("TZ", "UTC", 1);
  logging::setSink([](LogLevel, auto, std::string_view, auto) {});  // It would tell of virtual times.

  const auto palette = Palette::forDescriptor(STDOUT_FILENO);
  json events = json::array();
  const auto episodes = runScenario(*scenario, scratch.path, [&](const ScenarioEvent& event) {
    if (output == Output::json) {
      events.push_back(
          {{"at", formatIso8601(event.at)}, {"kind", rawValue(event.kind)}, {"text", event.text}});
    } else {
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
