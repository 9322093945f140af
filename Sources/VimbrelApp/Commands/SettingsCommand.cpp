// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Table.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string text(const json& object, const char* key) {
  const auto member = object.find(key);
  return member != object.end() && member->is_string() ? member->get<std::string>() : std::string{};
}

std::string withUnit(const json& setting) {
  // "none" has no unit.
  const auto value = setting.find("value");
  const auto unit = value == setting.end() || value->is_null() ? std::string{} : text(setting, "unit");
  return text(setting, "text") + (unit.empty() ? "" : " " + retell(unit));
}

void printTable(const json& list) {
  Table table({say("SETTING"), say("VALUE"), say("MEANING")});
  for (const auto& setting : list.value("settings", json::array())) {
    if (!setting.is_object()) continue;
    const bool isDefault = setting.value("isDefault", false);
    table.addRow({{text(setting, "key"), Tone::strong},
                  {withUnit(setting), isDefault ? Tone::plain : Tone::warning},
                  {retell(text(setting, "help")), Tone::dim}});
  }
  printLines(table.lines(outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO)));
  for (const auto& warning : list.value("warnings", json::array())) {
    if (warning.is_string()) {
      (void)reportProblem(retell(warning.get<std::string>()));
    }
  }
}

/// What "get", "set" and "reset" answer with: one setting, or all of them.
int report(const std::expected<json, int>& answer, Output output) {
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
  } else if (answer->contains("settings")) {
    printTable(*answer);
  } else {
    std::printf("%s = %s\n", displayable(text(*answer, "key")).c_str(),
                displayable(withUnit(*answer)).c_str());
  }
  return exitCode::done;
}

}  // namespace

int settingsListCommand(Output output) { return report(ask("settings.list", json::object()), output); }

int settingsGetCommand(const std::string& key, Output output) {
  const auto answer = ask("settings.get", {{"key", key}});
  if (!answer || output == Output::json) return report(answer, output);
  // The bare value, for scripts.
  std::puts(displayable(text(*answer, "text")).c_str());
  return exitCode::done;
}

int settingsSetCommand(const std::string& key, const std::string& value, Output output) {
  return report(ask("settings.set", {{"key", key}, {"value", value}}), output);
}

int settingsResetCommand(const std::string& key, Output output) {
  return report(ask("settings.reset", key.empty() ? json::object() : json{{"key", key}}), output);
}

}  // namespace vimbrel
