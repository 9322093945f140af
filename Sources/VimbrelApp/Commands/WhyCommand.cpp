// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Support/DurationText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Palette.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string text(const json& object, const char* key) {
  const auto member = object.find(key);
  return member != object.end() && member->is_string() ? displayable(member->get<std::string>())
                                                       : std::string{};
}

struct Mark {
  const char* sign;
  Tone tone;
};

Mark markOf(const std::string& outcome) {
  if (outcome == "decided") return {"=>", Tone::strong};
  if (outcome == "overruled") return {" ~", Tone::warning};
  return {"  ", Tone::dim};
}

void addRule(std::vector<std::string>& lines, const json& rule, std::size_t width, const Palette& palette,
             Instant now) {
  constexpr std::size_t indent = 5;
  const auto room = width == 0 ? 0 : std::max<std::size_t>(width, indent + 10) - indent;
  const auto mark = markOf(text(rule, "outcome"));
  const auto add = [&](const std::string& sentence, Tone tone) {
    for (const auto& line : wrapped(sentence, room)) {
      lines.push_back(std::string(indent, ' ') + palette.paint(tone, line));
    }
  };
  lines.push_back(palette.paint(mark.tone, std::string(mark.sign) + " " + retell(text(rule, "label"))));
  if (const auto saw = text(rule, "saw"); !saw.empty()) add(retell(saw), Tone::plain);
  if (const auto says = text(rule, "saysDescription"); !says.empty()) {
    const auto said = retell(says);
    add(text(rule, "outcome") == "overruled" ? say("would say: %1", {said}) : say("says: %1", {said}),
        mark.tone);
  }
  std::string change = retell(text(rule, "wouldChange"));
  if (const auto at = parseIso8601(text(rule, "changesAt"))) {
    const auto left = std::max(*at - now, Seconds(0));
    if (!change.empty()) change += "; ";
    change += say("at %1 (in %2) by itself", {localTime(*at, now), formatDuration(left)});
  }
  if (!change.empty()) add(say("changes: %1", {change}), Tone::dim);
}

}  // namespace

int whyCommand(Output output) {
  const auto answer = ask("why", json::object());
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
    return exitCode::done;
  }
  const auto width = outputWidth(STDOUT_FILENO);
  const auto palette = Palette::forDescriptor(STDOUT_FILENO);
  std::vector<std::string> lines;
  for (const auto& line : wrapped(retell(text(*answer, "statusDescription")), width)) {
    lines.push_back(palette.paint(Tone::strong, line));
  }
  if (answer->value("simulated", false)) lines.push_back(palette.paint(Tone::warning, say("(simulated)")));
  lines.emplace_back();
  // Beyond 72 columns the eye loses the line.
  const auto legend =
      say("The rules in order; the first that applies decides (=>), one that applies too is overruled (~):");
  for (const auto& line : wrapped(legend, width == 0 ? 72 : std::min<std::size_t>(width, 72))) {
    lines.push_back(line);
  }
  lines.emplace_back();
  for (const auto& rule : answer->value("rules", json::array())) {
    addRule(lines, rule, width, palette, currentTime());
  }
  if (const auto lid = answer->find("closedLid"); lid != answer->end() && lid->is_object()) {
    lines.emplace_back();
    auto sentence = say("The closed lid: %1", {retell(text(*lid, "explanation"))});
    if (const auto by = retell(text(*lid, "coveredBy")); !by.empty()) {
      const auto until = parseIso8601(text(*lid, "until"));
      sentence = until ? say("%1, covered by %2 until %3 unless renewed",
                             {sentence, by, localTime(*until, currentTime())})
                       : say("%1, covered by %2", {sentence, by});
    }
    if (const auto remedy = text(*lid, "remedy"); !remedy.empty()) {
      sentence = say("%1. To change that, %2", {sentence, retell(remedy)});
    }
    const bool fails = text(*lid, "cover") == "uncovered";
    for (const auto& line : wrapped(sentence + ".", width)) {
      lines.push_back(palette.paint(fails ? Tone::bad : Tone::plain, line));
    }
  }
  printLines(lines);
  return exitCode::done;
}

}  // namespace vimbrel
