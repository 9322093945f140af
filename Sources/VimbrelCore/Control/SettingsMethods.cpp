// SPDX-License-Identifier: Apache-2.0
#include "Control/SettingsMethods.h"

#include <expected>
#include <vector>

#include "Control/RpcResult.h"
#include "Support/ClosestMatch.h"
#include "Support/JsonWriter.h"
#include "Support/Sentence.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {

using nlohmann::json;

namespace {

json valueToJson(const PreferenceValue& value) {
  struct {
    json operator()(std::monostate) const { return nullptr; }
    json operator()(Instant instant) const { return formatIso8601(instant); }
    json operator()(bool flag) const { return flag; }
    json operator()(std::int64_t number) const { return number; }
    json operator()(double number) const { return number; }
  } convert;
  return std::visit(convert, value);
}

std::string_view rawValue(PreferenceType type) {
  switch (type) {
    case PreferenceType::boolean:
      return "boolean";
    case PreferenceType::integer:
      return "integer";
    case PreferenceType::number:
      return "number";
    case PreferenceType::date:
      break;
  }
  return "date";
}

json describe(const SettingsStore& settings, const SettingDescription& setting) {
  const auto value = settings.value(setting.key);
  const auto boundToJson = [](std::optional<double> bound) { return bound ? json(*bound) : json(nullptr); };
  return {{"key", setting.key},
          {"value", valueToJson(value)},
          {"text", formatSettingValue(value)},
          {"default", valueToJson(setting.defaultValue)},
          {"isDefault", value == setting.defaultValue},
          {"type", rawValue(setting.type)},
          {"unit", setting.unit},
          {"minimum", boundToJson(setting.minimum)},
          {"maximum", boundToJson(setting.maximum)},
          {"help", setting.help}};
}

json listOf(const SettingsStore& settings) {
  json list = json::array();
  for (const auto& setting : settingDescriptions()) list.push_back(describe(settings, setting));
  return {
      {"settings", std::move(list)}, {"location", settings.location()}, {"warnings", settings.warnings()}};
}

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

std::expected<const SettingDescription*, RpcError> settingOf(const json& params) {
  const auto key = params.find("key");
  if (key == params.end() || !key->is_string()) return invalid("\"key\" must be a string");
  const auto& name = key->get_ref<const std::string&>();
  if (const auto* setting = findSetting(name)) return setting;
  std::vector<std::string_view> keys;
  for (const auto& setting : settingDescriptions()) keys.push_back(setting.key);
  const auto close = closestMatch(name, keys);
  return invalid(close ? sentence("there is no setting \"%1\"; did you mean \"%2\"?", {name, *close})
                       : sentence("there is no setting \"%1\"", {name}));
}

/// The value as a person would type it, so that every way of giving one meets the same bounds.
std::expected<std::string, RpcError> textOf(const json& params) {
  const auto value = params.find("value");
  if (value == params.end()) return invalid("\"value\" is missing");
  if (value->is_string()) return value->get<std::string>();
  if (value->is_boolean()) return value->get<bool>() ? "on" : "off";
  if (value->is_number_integer()) return value->dump();
  if (value->is_number()) return shortestDecimal(value->get<double>());
  if (value->is_null()) return "none";
  return invalid("\"value\" must be a string, a number, true, false or null");
}

RpcResult afterWriting(const SettingsStore::WriteResult& written, json answer) {
  if (!written) return std::unexpected(RpcError{RpcFault::operationFailed, written.error().text});
  return answer;
}

RpcResult setSetting(const ControlledApplication& application, const json& params) {
  const auto setting = settingOf(params);
  if (!setting) return std::unexpected(setting.error());
  const auto text = textOf(params);
  if (!text) return std::unexpected(text.error());
  const auto value = parseSettingText(**setting, *text, application.clock.now());
  if (!value) return invalid(value.error());
  auto& settings = application.coordinator.settings();
  const auto written = settings.setValue((*setting)->key, *value);
  return afterWriting(written, describe(settings, **setting));
}

RpcResult resetSettings(SettingsStore& settings, const json& params) {
  if (!params.contains("key")) {
    const auto written = settings.resetToDefaults();
    return afterWriting(written, listOf(settings));
  }
  const auto setting = settingOf(params);
  if (!setting) return std::unexpected(setting.error());
  const auto written = settings.reset((*setting)->key);
  return afterWriting(written, describe(settings, **setting));
}

}  // namespace

json settingValues(const SettingsStore& settings) {
  json values = json::object();
  for (const auto& setting : settingDescriptions()) {
    values[std::string(setting.key)] = valueToJson(settings.value(setting.key));
  }
  return values;
}

void addSettingsMethods(ControlServer& server, const ControlledApplication& application) {
  auto& settings = application.coordinator.settings();
  server.methods().add("settings.list", [&settings](const json&) -> RpcResult { return listOf(settings); });
  server.methods().add("settings.get", [&settings](const json& params) -> RpcResult {
    const auto setting = settingOf(params);
    if (!setting) return std::unexpected(setting.error());
    return describe(settings, **setting);
  });
  server.methods().add("settings.set", [application](const json& params) -> RpcResult {
    return setSetting(application, params);
  });
  server.methods().add("settings.reset", [&settings](const json& params) -> RpcResult {
    return resetSettings(settings, params);
  });
}

}  // namespace vimbrel
