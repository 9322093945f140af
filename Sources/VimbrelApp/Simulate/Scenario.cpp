// SPDX-License-Identifier: Apache-2.0
#include "Simulate/Scenario.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

#include "Support/DurationText.h"
#include "Support/StrictJson.h"
#include "System/SettingDescriptions.h"

namespace vimbrel {
namespace {

using nlohmann::json;

/// More steps than any story has; a slip of the pen in "every" must not take the memory.
constexpr std::size_t mostSteps = 200'000;
constexpr Seconds longest{14.0 * 24 * 3600};

/// Plans what the steps ask for, and then merges their changes in order of time: a step that goes on for long
/// is interrupted by others, so that its later changes know their world only then.
class Reading {
 public:
  std::expected<Scenario, std::string> read(const json& root) {
    StrictJsonObject object(root, "scenario");
    refuseUnknown(root, std::array{"start", "length", "world", "settings", "steps"}, "scenario");
    if (problem_) return std::unexpected(*problem_);
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
      scenario_.settings = settingsOf(*settings, Seconds{0}, "scenario");
    const auto* steps = object.member("steps");
    if (steps == nullptr || !steps->is_array()) return std::unexpected("scenario: \"steps\" is not a list");
    // In order of their first times: of two changes at one time, that of the step that began later wins.
    std::vector<std::pair<Seconds, std::size_t>> order;
    for (std::size_t i = 0; i < steps->size() && !problem_; ++i) {
      StrictJsonObject step((*steps)[i], nameOf(i));
      const auto at = step.string("at");
      if (step.error()) fail("", *step.error());
      order.emplace_back(duration(at, nameOf(i)), i);
      refuseAfterEnd("at", order.back().first, nameOf(i));
    }
    std::ranges::stable_sort(order, {}, &std::pair<Seconds, std::size_t>::first);
    for (const auto& [at, index] : order) {
      if (!problem_) readStep((*steps)[index], at, nameOf(index));
    }
    std::ranges::stable_sort(planned_, {}, [](const Planned& planned) { return planned.step.at; });
    for (auto& planned : planned_) {
      if (!problem_) settle(planned);
    }
    if (problem_) return std::unexpected(*problem_);
    return std::move(scenario_);
  }

 private:
  /// A step whose world is not known yet, only what it changes there.
  struct Planned {
    ScenarioStep step;
    json patch;
    std::string where;
  };

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

  void refuseAfterEnd(const std::string& key, Seconds time, const std::string& where) {
    if (time > scenario_.length) fail(where, "\"" + key + "\" is later than the scenario's \"length\"");
  }

  template <std::size_t size>
  void refuseUnknown(const json& object, const std::array<const char*, size>& known,
                     const std::string& where) {
    for (const auto& [key, value] : object.items()) {
      if (std::ranges::find(known, key) == known.end()) fail(where, "\"" + key + "\" is unknown");
    }
  }

  std::vector<ScenarioSetting> settingsOf(const json& object, Seconds at, const std::string& where) {
    std::vector<ScenarioSetting> settings;
    if (!object.is_object()) {
      fail(where, "\"settings\" is not an object");
      return settings;
    }
    for (const auto& [key, value] : object.items()) {
      const auto text = value.is_string()    ? value.get<std::string>()
                        : value.is_boolean() ? (value.get<bool>() ? "on" : "off")
                        : value.is_null()    ? "none"
                                             : value.dump();
      const auto* setting = findSetting(key);
      if (setting == nullptr) {
        fail(where, "there is no setting \"" + key + "\"");
        continue;
      }
      const auto parsed = parseSettingText(*setting, text, scenario_.start + at);
      if (!parsed) fail(where, parsed.error());
      settings.push_back({key, text, parsed.value_or(PreferenceValue{})});
    }
    return settings;
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

  void plan(Seconds at, decltype(ScenarioStep::action) action, const std::string& where,
            bool isRepeat = false, json patch = {}) {
    if (planned_.size() >= mostSteps) {
      return fail(where, "with it the scenario has more than " + std::to_string(mostSteps) + " steps");
    }
    planned_.push_back({{at, std::move(action), isRepeat}, std::move(patch), where});
  }

  /// Takes the next step in order of time into the scenario.
  void settle(Planned& planned) {
    auto& step = planned.step;
    if (auto* world = std::get_if<ScenarioStep::World>(&step.action)) {
      const auto powerBefore = worldDocument_.value("power", json());
      worldDocument_.merge_patch(planned.patch);
      // A charge that is the same to a whole per cent is no news.
      if (step.isRepeat && worldDocument_["power"] == powerBefore) return;
      world->world = worldOf(planned.where);
    }
    if (const auto* life = std::get_if<ScenarioStep::Life>(&step.action)) {
      isRunning_ = *life == ScenarioStep::Life::start;
    }
    if (std::holds_alternative<ScenarioStep::Settings>(step.action) && !isRunning_) {
      fail(planned.where, "settings cannot be changed while Vimbrel is not running");
    }
    scenario_.steps.push_back(std::move(step));
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
    refuseAfterEnd("until", end, where);
    if (problem_) return;
    std::vector<Seconds> times;
    for (auto time = at; time <= end && times.size() <= mostSteps; time += interval) times.push_back(time);

    if (const auto text = object.optionalString("say")) plan(at, ScenarioStep::Say{*text}, where);
    if (const auto* life = object.member("vimbrel")) readLife(*life, at, where);
    if (const auto* settings = object.member("settings")) {
      plan(at, ScenarioStep::Settings{settingsOf(*settings, at, where)}, where);
    }
    if (object.member("agent") != nullptr) readHook(object, times, where);
    if (const auto* world = object.member("world")) {
      if (!world->is_object()) return fail(where, "\"world\" is not an object");
      plan(at, ScenarioStep::World{{}, world->dump()}, where, false, *world);
    }
    if (const auto* battery = object.member("battery")) readBattery(*battery, times, where);
    refuseUnknown(step,
                  std::array{"at", "every", "until", "say", "vimbrel", "settings", "agent", "state",
                             "session", "world", "battery"},
                  where);
    if (object.error()) fail("", *object.error());
  }

  void readLife(const json& life, Seconds at, const std::string& where) {
    using Life = ScenarioStep::Life;
    if (life == "start") return plan(at, Life::start, where);
    if (life == "stop") return plan(at, Life::stop, where);
    if (life == "crash") return plan(at, Life::crash, where);
    fail(where, "\"vimbrel\" is none of start, stop and crash");
  }

  void readHook(StrictJsonObject& object, const std::vector<Seconds>& times, const std::string& where) {
    const auto agent = agentTypeFromRawValue(object.string("agent"));
    const auto state = agentStateFromRawValue(object.string("state"));
    if (!agent) return fail(where, "there is no such agent");
    if (!state) return fail(where, "there is no such state");
    const auto session = object.optionalString("session").value_or(std::string(rawValue(*agent)));
    for (const auto time : times) {
      plan(time, ScenarioStep::Hook{*agent, *state, session}, where, time != times.front());
    }
  }

  /// From one charge to another, in a straight line.
  void readBattery(const json& range, const std::vector<Seconds>& times, const std::string& where) {
    if (!range.is_array() || range.size() != 2 || !range[0].is_number() || !range[1].is_number()) {
      return fail(where, "\"battery\" takes two charges, such as [80, 20]");
    }
    for (std::size_t i = 0; i < times.size(); ++i) {
      const double share =
          times.size() < 2 ? 1.0 : static_cast<double>(i) / static_cast<double>(times.size() - 1);
      const double charge = std::lerp(range[0].get<double>(), range[1].get<double>(), share);
      const auto percent = static_cast<std::int64_t>(std::lround(std::clamp(charge, 0.0, 100.0)));
      plan(times[i], ScenarioStep::World{{}, "battery at " + std::to_string(percent) + " %"}, where, i > 0,
           {{"power", {{"batteryPercent", percent}}}});
    }
  }

  Scenario scenario_;
  std::vector<Planned> planned_;
  json worldDocument_ = json::object();
  bool isRunning_ = true;  ///< Vimbrel, by the time of the step that is settled
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
