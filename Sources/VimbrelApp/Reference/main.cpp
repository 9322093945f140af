// SPDX-License-Identifier: Apache-2.0
// Writes down what the programs understand, as one JSON document: every command and option of `vimbrel`, the
// settings, the agents and states, the exit statuses. Manual pages, completions and translation templates are
// made from it while building, so that none of them can miss a command. Not installed.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "CommandLine.h"
#include "Commands/ExitCode.h"
#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "System/SettingDescriptions.h"
#include "Version.h"

namespace {

using nlohmann::json;
using namespace vimbrel;

/// The values of a check such as CLI::IsMember, whose description is "{one,two}"; empty when any is accepted.
json acceptedValues(const std::string& typeName) {
  json values = json::array();
  const auto open = typeName.find('{');
  const auto close = typeName.find('}', open);
  if (open == std::string::npos || close == std::string::npos) return values;
  std::string value;
  for (auto i = open + 1; i <= close; ++i) {
    if (typeName[i] == ',' || i == close) {
      values.push_back(value);
      value.clear();
    } else {
      value += typeName[i];
    }
  }
  return values;
}

json optionDocument(const CLI::Option& option) {
  json names = json::array();
  for (const auto& each : option.get_snames()) names.push_back("-" + each);
  for (const auto& each : option.get_lnames()) names.push_back("--" + each);
  const bool takesValue = option.get_expected_max() > 0;
  const auto typeName = option.get_type_name();
  auto placeholder = option.get_option_text();
  if (placeholder.empty() && takesValue) {
    const auto first = option.get_lnames().empty() ? std::string("value") : option.get_lnames().front();
    for (const char c : first) {
      placeholder += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
  }
  return {{"names", names},
          {"position", option.get_positional() ? option.get_name(true) : ""},
          {"value", takesValue ? placeholder : ""},
          {"values", acceptedValues(typeName)},
          {"required", option.get_required()},
          {"repeats", option.get_expected_max() > 1},
          {"help", option.get_description()}};
}

json commandDocument(CLI::App& app) {
  json options = json::array();
  json positions = json::array();
  for (auto* option : app.get_options()) {
    auto document = optionDocument(*option);
    (option->get_positional() ? positions : options).push_back(std::move(document));
  }
  json commands = json::array();
  for (auto* command : app.get_subcommands([](CLI::App*) { return true; })) {
    // A command without a group is one that `--help` does not show.
    if (!command->get_group().empty()) commands.push_back(commandDocument(*command));
  }
  return {{"name", app.get_name()},
          {"help", app.get_description()},
          {"options", options},
          {"positions", positions},
          {"commands", commands}};
}

json settingDocument(const SettingDescription& setting) {
  static constexpr const char* types[] = {"boolean", "integer", "number", "date"};
  json document{{"key", setting.key},
                {"type", types[static_cast<int>(setting.type)]},
                {"unit", setting.unit},
                {"default", formatSettingValue(setting.defaultValue)},
                {"help", setting.help}};
  if (setting.minimum) document["minimum"] = formatSettingValue(*setting.minimum);
  if (setting.maximum) document["maximum"] = formatSettingValue(*setting.maximum);
  return document;
}

}  // namespace

int main() {
  json document;
  withCommandLine([&](CLI::App& app) { document["program"] = commandDocument(app); });
  document["version"] = versionNumber();
  for (const auto& setting : settingDescriptions()) document["settings"].push_back(settingDocument(setting));
  for (const auto agent : allAgentTypes) document["agents"].push_back(rawValue(agent));
  for (const auto state : allAgentStates) document["states"].push_back(rawValue(state));
  for (const auto& [status, meaning] : exitCode::meanings) {
    document["exitStatus"].push_back({{"status", status}, {"meaning", meaning}});
  }
  return std::puts(document.dump(1).c_str()) < 0 ? 1 : 0;
}
