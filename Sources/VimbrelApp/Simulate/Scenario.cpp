// SPDX-License-Identifier: Apache-2.0
#include "Simulate/Scenario.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Support/DurationText.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

using nlohmann::json;

/// More steps than any story has; a slip of the pen in "every" must not take the memory.
constexpr std::size_t mostSteps = 200'000;
constexpr Seconds longest{14.0 * 24 * 3600};

/// Reads the steps one after the other, each on top of the world that the ones before it made.
class Reading {
 public:
  std::expected<Scenario, std::string> read(const json& root) {
    StrictJsonObject object(root, "scenario");
    const auto start = object.optionalString("start").value_or("2026-01-05T08:00:00Z");
    const auto instant = parseIso8601(start);
    if (!instant) fail("scenario", "\"start\" is not an ISO 8601 time");
    scenario_.start = instant.value_or(Instant{});
    const auto length = object.string("length");
    if (object.error()) return std::unexpected(*object.error());
    scenario_.length = duration(length, "scenario");
    if (const auto* world = object.member("world")) worldDocument_ = *world;
    scenario_.world = worldOf("scenario");
    if (const auto* settings = object.member("settings"))
      scenario_.settings = settingsOf(*settings, "scenario");
    const auto* steps = object.member("steps");
    if (steps == nullptr || !steps->is_array()) return std::unexpected("scenario: \"steps\" is not a list");
    // In order of their first times, because each changes the world that the next one starts from.
    std::vector<std::pair<Seconds, std::size_t>> order;
    for (std::size_t i = 0; i < steps->size() && !problem_; ++i) {
      StrictJsonObject step((*steps)[i], nameOf(i));
      const auto at = step.string("at");
      if (step.error()) fail("", *step.error());
      order.emplace_back(duration(at, nameOf(i)), i);
    }
    std::ranges::stable_sort(order, {}, &std::pair<Seconds, std::size_t>::first);
    for (const auto& [at, index] : order) {
      if (!problem_) readStep((*steps)[index], at, nameOf(index));
    }
    if (problem_) return std::unexpected(*problem_);
    std::ranges::stable_sort(scenario_.steps, {}, &ScenarioStep::at);
    return std::move(scenario_);
  }

 private:
  static std::string nameOf(std::size_t index) { return "step " + std::to_string(index + 1); }
  void fail(const std::string& where, const std::string& what) {
    if (!problem_) problem_ = where.empty() ? what : where + ": " + what;
  }

  Seconds duration(const std::string& text, const std::string& where) {
    const auto parsed = parseDuration(text);
    if (!parsed) fail(where, parsed.error());
    if (parsed && *parsed > longest) fail(where, "\"" + text + "\" is longer than two weeks");
    return parsed.value_or(Seconds{0});
  }

  std::map<std::string, std::string> settingsOf(const json& object, const std::string& where) {
    std::map<std::string, std::string> values;
    if (!object.is_object()) fail(where, "\"settings\" is not an object");
    for (const auto& [key, value] : object.items()) {
      values[key] = value.is_string()    ? value.get<std::string>()
                    : value.is_boolean() ? (value.get<bool>() ? "on" : "off")
                    : value.is_null()    ? "none"
                                         : value.dump();
    }
    return values;
  }

  SimulatedWorld worldOf(const std::string& where) {
    auto parsed = parseSimulatedWorld(worldDocument_.dump());
    if (!parsed) {
      fail(where, parsed.error());
      return {};
    }
    if (!parsed->unknownKeys.empty()) fail(where, "the world has no \"" + parsed->unknownKeys.front() + "\"");
    return parsed->world;
  }

  void add(Seconds at, decltype(ScenarioStep::action) action, bool isRepeat) {
    if (scenario_.steps.size() >= mostSteps) return fail("scenario", "it has too many steps");
    scenario_.steps.push_back({at, std::move(action), isRepeat});
  }

  void readStep(const json& step, Seconds at, const std::string& where) {
    StrictJsonObject object(step, where);
    const auto every = object.optionalString("every");
    const auto until = object.optionalString("until");
    const Seconds interval = every ? duration(*every, where) : Seconds{60};
    const Seconds end = until ? duration(*until, where) : at;
    if (every && !until) fail(where, "\"every\" needs \"until\"");
    if (interval < Seconds{1}) fail(where, "\"every\" is shorter than a second");
    if (end < at) fail(where, "\"until\" is before \"at\"");
    if (problem_) return;
    std::vector<Seconds> times;
    for (auto time = at; time <= end && times.size() < mostSteps; time += interval) times.push_back(time);

    if (const auto text = object.optionalString("say")) add(at, ScenarioStep::Say{*text}, false);
    if (const auto* life = object.member("vimbrel")) readLife(*life, at, where);
    if (const auto* settings = object.member("settings")) {
      add(at, ScenarioStep::Settings{settingsOf(*settings, where)}, false);
    }
    if (object.member("agent") != nullptr) readHook(object, times, where);
    if (const auto* world = object.member("world")) {
      if (!world->is_object()) return fail(where, "\"world\" is not an object");
      worldDocument_.merge_patch(*world);
      add(at, ScenarioStep::World{worldOf(where), world->dump()}, false);
    }
    if (problem_) return;  // A charge needs a world to be in.
    if (const auto* battery = object.member("battery")) readBattery(*battery, times, where);
    for (const auto& [key, value] : step.items()) {
      constexpr std::array known{"at",    "every", "until",   "say",   "vimbrel", "settings",
                                 "agent", "state", "session", "world", "battery"};
      if (std::ranges::find(known, key) == known.end()) fail(where, "\"" + key + "\" is unknown");
    }
    if (object.error()) fail("", *object.error());
  }

  void readLife(const json& life, Seconds at, const std::string& where) {
    using Life = ScenarioStep::Life;
    if (life == "start") return add(at, Life::start, false);
    if (life == "stop") return add(at, Life::stop, false);
    if (life == "crash") return add(at, Life::crash, false);
    fail(where, "\"vimbrel\" is none of start, stop and crash");
  }

  void readHook(StrictJsonObject& object, const std::vector<Seconds>& times, const std::string& where) {
    const auto agent = agentTypeFromRawValue(object.string("agent"));
    const auto state = agentStateFromRawValue(object.string("state"));
    if (!agent) return fail(where, "there is no such agent");
    if (!state) return fail(where, "there is no such state");
    const auto session = object.optionalString("session").value_or(std::string(rawValue(*agent)));
    for (const auto time : times)
      add(time, ScenarioStep::Hook{*agent, *state, session}, time != times.front());
  }

  /// From one charge to another, in a straight line; a whole per cent at a time.
  void readBattery(const json& range, const std::vector<Seconds>& times, const std::string& where) {
    if (!range.is_array() || range.size() != 2 || !range[0].is_number() || !range[1].is_number()) {
      return fail(where, "\"battery\" takes two charges, such as [80, 20]");
    }
    std::optional<std::int64_t> last;
    for (std::size_t i = 0; i < times.size(); ++i) {
      const double share =
          times.size() < 2 ? 1.0 : static_cast<double>(i) / static_cast<double>(times.size() - 1);
      const double charge = std::lerp(range[0].get<double>(), range[1].get<double>(), share);
      const auto percent = static_cast<std::int64_t>(std::lround(std::clamp(charge, 0.0, 100.0)));
      if (last == percent) continue;
      worldDocument_["power"]["batteryPercent"] = percent;
      add(times[i], ScenarioStep::World{worldOf(where), "battery at " + std::to_string(percent) + " %"},
          last.has_value());
      last = percent;
    }
  }

  Scenario scenario_;
  json worldDocument_ = json::object();
  std::optional<std::string> problem_;
};

}  // namespace

std::expected<Scenario, std::string> parseScenario(std::string_view text) {
  const auto root = parseJson(text);
  if (!root) return std::unexpected("scenario: not valid JSON");
  if (!root->is_object()) return std::unexpected("scenario: not a JSON object");
  return Reading().read(*root);
}

}  // namespace vimbrel
