// SPDX-License-Identifier: Apache-2.0
#include "Platform/Simulated/SimulatedWorld.h"

#include <algorithm>
#include <initializer_list>
#include <limits>
#include <nlohmann/json.hpp>

#include "Platform/ProcessLine.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

using nlohmann::json;

/// Gathers the first problem and the unknown keys while the parts are read.
struct Reading {
  SimulatedWorldDocument document;
  std::optional<std::string> problem;

  void fail(std::string text) {
    if (!problem) problem = std::move(text);
  }
  void take(const StrictJsonObject& object) {
    if (object.error()) fail(*object.error());
  }
  void noteUnknown(const json& object, std::initializer_list<std::string_view> known) {
    for (const auto& [key, value] : object.items()) {
      if (std::ranges::find(known, key) == known.end()) document.unknownKeys.push_back(key);
    }
  }
};

void readPower(const json& value, Reading& reading) {
  StrictJsonObject object(value, "power");
  auto power = PowerSourceSnapshot::desktopDefault();
  power.batteryPercent = object.optionalInteger("batteryPercent");
  if (power.batteryPercent && (*power.batteryPercent < 0 || *power.batteryPercent > 100)) {
    object.fail("batteryPercent", "is not between 0 and 100");
  }
  power.isCharging = object.optionalBoolean("isCharging").value_or(power.isCharging);
  power.isOnAC = object.optionalBoolean("isOnAC").value_or(power.isOnAC);
  power.isLowPowerMode = object.optionalBoolean("isLowPowerMode").value_or(power.isLowPowerMode);
  power.timeRemainingMinutes = object.optionalInteger("timeRemainingMinutes");
  reading.take(object);
  reading.noteUnknown(value,
                      {"batteryPercent", "isCharging", "isOnAC", "isLowPowerMode", "timeRemainingMinutes"});
  reading.document.world.power = power;
}

void readApplication(const json& value, Reading& reading) {
  StrictJsonObject object(value, "application");
  RunningApplication application;
  application.localizedName = object.optionalString("name");
  application.bundleIdentifier = object.optionalString("bundleIdentifier").value_or("");
  const auto pid = object.integer("pid");
  if (pid < 1 || pid > std::numeric_limits<std::int32_t>::max()) object.fail("pid", "is not a process id");
  application.pid = static_cast<std::int32_t>(pid);
  reading.take(object);
  reading.noteUnknown(value, {"name", "bundleIdentifier", "pid"});
  reading.document.world.applications.push_back(std::move(application));
}

void readProcess(const json& value, Reading& reading) {
  if (!value.is_string()) return reading.fail("world: \"processes\" holds something that is not a string");
  const auto& line = value.get_ref<const std::string&>();
  auto entry = parseProcessLine(line);
  if (!entry)
    return reading.fail("world: \"" + line.substr(0, 60) + "\" is no process line (\"PID COMMAND\")");
  reading.document.world.processes.push_back(*std::move(entry));
}

bool assertionWorks(StrictJsonObject& object, std::string_view key) {
  const auto text = object.optionalString(key).value_or("ok");
  if (text != "ok" && text != "fail") object.fail(key, "is neither \"ok\" nor \"fail\"");
  return text == "ok";
}

void readAssertions(const json& value, Reading& reading) {
  StrictJsonObject object(value, "assertions");
  reading.document.world.systemAssertionWorks = assertionWorks(object, "system");
  reading.document.world.displayAssertionWorks = assertionWorks(object, "display");
  reading.take(object);
  reading.noteUnknown(value, {"system", "display"});
}

void readEach(const StrictJsonObject& object, std::string_view key, Reading& reading,
              void (*read)(const json&, Reading&)) {
  const auto* list = object.member(key);
  if (list == nullptr) return;
  if (!list->is_array()) return reading.fail("world: \"" + std::string(key) + "\" is not a list");
  for (const auto& value : *list) read(value, reading);
}

}  // namespace

std::expected<SimulatedWorldDocument, std::string> parseSimulatedWorld(std::string_view text) {
  const auto root = parseJson(text);
  if (!root) return std::unexpected("world: not valid JSON");
  StrictJsonObject object(*root, "world");
  if (object.error()) return std::unexpected(*object.error());

  Reading reading;
  auto& world = reading.document.world;
  if (const auto* power = object.member("power")) readPower(*power, reading);
  if (const auto name = object.optionalString("thermalState")) {
    const auto state = systemThermalStateFromRawValue(*name);
    if (!state) object.fail("thermalState", "is none of nominal, fair, serious and critical");
    world.thermalState = state.value_or(world.thermalState);
  }
  world.lidClosed = object.optionalBoolean("lidClosed");
  readEach(object, "applications", reading, readApplication);
  readEach(object, "processes", reading, readProcess);
  if (const auto* assertions = object.member("assertions")) readAssertions(*assertions, reading);
  reading.take(object);
  reading.noteUnknown(*root,
                      {"power", "thermalState", "lidClosed", "applications", "processes", "assertions"});
  if (reading.problem) return std::unexpected(*reading.problem);
  std::ranges::stable_sort(world.processes, {}, &ProcessEntry::pid);
  std::ranges::stable_sort(world.applications, {}, &RunningApplication::pid);
  return std::move(reading.document);
}

}  // namespace vimbrel
