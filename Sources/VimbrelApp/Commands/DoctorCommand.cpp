// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Palette.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string text(const json& object, const char* key) {
  const auto member = object.find(key);
  return member != object.end() && member->is_string() ? displayable(member->get<std::string>())
                                                       : std::string{};
}

std::string shown(const std::string& verdict) {
  if (verdict == "works") return sayAs("verdict", "works");
  if (verdict == "missing") return sayAs("verdict", "missing");
  if (verdict == "refused") return sayAs("verdict", "refused");
  return verdict == "warning" ? sayAs("verdict", "warning") : verdict;
}

Tone toneOf(const std::string& verdict) {
  if (verdict == "works") return Tone::good;
  if (verdict == "missing") return Tone::dim;
  return verdict == "refused" ? Tone::bad : Tone::warning;
}

}  // namespace

int doctorCommand(Output output) {
  const auto answer = ask("doctor", json::object());
  if (!answer) return answer.error();
  const bool canHold = answer->value("canHold", false);
  const bool simulated = answer->value("simulated", false);
  const int status = canHold ? exitCode::done : exitCode::failed;
  if (output == Output::json) {
    printJson(*answer);
    return status;
  }
  const auto width = outputWidth(STDOUT_FILENO);
  const auto palette = Palette::forDescriptor(STDOUT_FILENO);
  std::size_t indent = 0;
  for (const auto* verdict : {"works", "missing", "refused", "warning"}) {
    indent = std::max(indent, displayWidth(shown(verdict)) + 3);
  }
  const auto room = width == 0 ? 0 : std::max<std::size_t>(width, indent + 10) - indent;
  std::vector<std::string> lines;
  const auto add = [&](const std::string& sentence, Tone tone) {
    if (sentence.empty()) return;
    for (const auto& line : wrapped(sentence, room)) {
      lines.push_back(std::string(indent, ' ') + palette.paint(tone, line));
    }
  };
  for (const auto& finding : answer->value("findings", json::array())) {
    if (!finding.is_object()) continue;
    const auto verdict = text(finding, "verdict");
    lines.push_back(palette.paint(toneOf(verdict), padded(shown(verdict), indent)) +
                    palette.paint(Tone::strong, retell(text(finding, "subject"))));
    add(retell(text(finding, "explanation")), Tone::plain);
    if (const auto remedy = text(finding, "remedy"); !remedy.empty())
      add("-> " + retell(remedy), Tone::plain);
  }
  lines.emplace_back();
  const auto verdict = simulated ? say("SIMULATED: nothing keeps this machine awake.")
                       : canHold ? say("This machine can be kept awake.")
                                 : say("Nothing here can keep this machine awake.");
  for (const auto& line : wrapped(verdict, width)) {
    lines.push_back(palette.paint(simulated || !canHold ? Tone::warning : Tone::good, line));
  }
  printLines(lines);
  return status;
}

}  // namespace vimbrel
