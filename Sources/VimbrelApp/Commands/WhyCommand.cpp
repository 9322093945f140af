// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
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
  lines.push_back(palette.paint(mark.tone, std::string(mark.sign) + " " + text(rule, "label")));
  if (const auto saw = text(rule, "saw"); !saw.empty()) add(saw, Tone::plain);
  if (const auto says = text(rule, "saysDescription"); !says.empty()) {
    add((text(rule, "outcome") == "overruled" ? "would say: " : "says: ") + says, mark.tone);
  }
  std::string change = text(rule, "wouldChange");
  if (const auto at = parseIso8601(text(rule, "changesAt"))) {
    const auto left = std::max(*at - now, Seconds(0));
    if (!change.empty()) change += "; ";
    change += "at " + localTime(*at, now) + " (in " + formatDuration(left) + ") by itself";
  }
  if (!change.empty()) add("changes: " + change, Tone::dim);
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
  for (const auto& line : wrapped(text(*answer, "statusDescription"), width)) {
    lines.push_back(palette.paint(Tone::strong, line));
  }
  if (answer->value("simulated", false)) lines.push_back(palette.paint(Tone::warning, "(simulated)"));
  lines.emplace_back();
  lines.emplace_back("The rules in order; the first that applies decides (=>), one that");
  lines.emplace_back("applies too is overruled (~):");
  lines.emplace_back();
  for (const auto& rule : answer->value("rules", json::array())) {
    addRule(lines, rule, width, palette, currentTime());
  }
  if (const auto lid = answer->find("closedLid"); lid != answer->end() && lid->is_object()) {
    lines.emplace_back();
    std::string sentence = "The closed lid: " + text(*lid, "explanation");
    if (const auto by = text(*lid, "coveredBy"); !by.empty()) sentence += ", covered by " + by;
    if (const auto until = parseIso8601(text(*lid, "until"))) {
      sentence += " until " + localTime(*until, currentTime()) + " unless renewed";
    }
    if (const auto remedy = text(*lid, "remedy"); !remedy.empty()) sentence += ". To change that, " + remedy;
    const bool fails = text(*lid, "cover") == "uncovered";
    for (const auto& line : wrapped(sentence + ".", width)) {
      lines.push_back(palette.paint(fails ? Tone::bad : Tone::plain, line));
    }
  }
  printLines(lines);
  return exitCode::done;
}

}  // namespace vimbrel
