// SPDX-License-Identifier: Apache-2.0
#include "Terminal/StatusBarLine.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <utility>
#include <vector>

#include "Say.h"
#include "Support/MarkupText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

using nlohmann::json;

namespace {

constexpr std::array<std::pair<std::string_view, StatusBarFormat>, 4> formats{{
    {"plain", StatusBarFormat::plain},
    {"waybar", StatusBarFormat::waybar},
    {"i3blocks", StatusBarFormat::i3blocks},
    {"polybar", StatusBarFormat::polybar},
}};

/// What a bar shows, before it is written in a bar's own way.
struct BarContent {
  std::string text;
  std::string shortText;
  std::string mood;  ///< the visual state, or "paused", "unheld", "stopped"
  std::vector<std::string> classes;
  std::vector<std::string> tooltip;
  std::optional<std::int64_t> percentage;
};

// The application may be of another version than this client: what is missing is left out, never assumed.
const json& part(const json& object, const char* key) {
  static const json nothing = json::object();
  const auto member = object.find(key);
  return member == object.end() ? nothing : *member;
}
std::string text(const json& object, const char* key) {
  const auto& value = part(object, key);
  return value.is_string() ? displayable(value.get<std::string>()) : std::string{};
}
bool flag(const json& object, const char* key) {
  const auto& value = part(object, key);
  return value.is_boolean() && value.get<bool>();
}
std::int64_t number(const json& object, const char* key) {
  const auto& value = part(object, key);
  return value.is_number() ? value.get<std::int64_t>() : 0;
}

/// Colours of the moods, readable on dark and on light bars.
std::string_view colourOf(std::string_view mood) {
  if (mood == "working") return "#4caf50";
  if (mood == "waiting" || mood == "paused") return "#e0a020";
  if (mood == "error" || mood == "unheld") return "#e05050";
  return "#909090";
}

BarContent contentOf(const json& state, Instant now) {
  BarContent content;
  const auto mood = text(state, "visualState");
  const bool holds = flag(state, "isHolding");
  const bool isSimulated = flag(part(state, "assertions"), "simulated");
  const bool isUnheld = holds && !flag(part(state, "assertions"), "system");
  std::int64_t working = 0;
  std::int64_t waiting = 0;
  for (const auto& family : part(state, "agentFamilies")) {
    if (!family.is_object()) continue;
    working += number(family, "workingSessionCount");
    waiting += number(family, "waitingSessionCount");
    content.tooltip.push_back(retell(text(family, "displayName")) + ": " +
                              retell(text(family, "budgetSummaryLine")));
  }

  content.mood = mood.empty() ? "idle" : mood;
  std::string agents;
  if (working > 0) agents = sayCount(working, "%1 working", "%1 working");
  if (waiting > 0) agents += (agents.empty() ? "" : ", ") + sayCount(waiting, "%1 waiting", "%1 waiting");
  content.shortText = working + waiting > 0 ? std::to_string(working + waiting) : "";
  if (isUnheld) {
    content.mood = "unheld";
    content.text = say("NOT HELD");
  } else if (const auto until = parseIso8601(text(state, "pauseUntil"))) {
    content.mood = "paused";
    content.text = say("paused until %1", {localTime(*until, now)});
    content.shortText = say("paused");
  } else if (part(state, "decision").contains("blocked")) {
    content.text = retell(text(part(state, "decision").at("blocked"), "block"));
    content.shortText = say("blocked");
  } else if (!agents.empty()) {
    content.text = agents;
  } else {
    content.text = holds ? say("awake") : say("idle");
  }
  if (content.shortText.empty()) content.shortText = content.text;
  if (holds && isSimulated) content.text = say("%1 (simulated)", {content.text});

  content.classes.push_back(content.mood);
  if (holds && !isUnheld) content.classes.emplace_back("held");
  if (isSimulated) content.classes.emplace_back("simulated");
  const auto& alerts = part(state, "lowBudgetAlerts");
  if (!alerts.empty()) content.classes.emplace_back("low-budget");
  // The countdown of the release delay would be a new line every second.
  auto description = text(state, "statusDescription");
  if (const auto seconds = description.find(" ("); description.contains("Release debounce")) {
    if (const auto at = description.find(" (", seconds + 1); at != std::string::npos) description.resize(at);
  }
  content.tooltip.insert(content.tooltip.begin(), retell(description));
  for (const auto& alert : alerts) {
    if (alert.is_object()) content.tooltip.push_back("! " + retell(text(alert, "message")));
  }
  if (holds) content.tooltip.push_back(say("Held: %1", {heldSentence(state)}));
  if (text(part(state, "closedLid"), "cover") == "covered")
    content.tooltip.push_back(say("The lid may be closed"));
  const auto& percent = part(part(state, "power"), "batteryPercent");
  if (percent.is_number()) content.percentage = percent.get<std::int64_t>();
  return content;
}

/// A per cent sign before a brace would begin a tag.
std::string escapedForPolybar(std::string text) {
  for (auto at = text.find("%{"); at != std::string::npos; at = text.find("%{", at + 2))
    text.insert(at + 1, " ");
  return text;
}

std::string dumped(const json& object) { return object.dump(-1, ' ', false, json::error_handler_t::replace); }

std::string lineOf(const BarContent& content, StatusBarFormat format) {
  switch (format) {
    case StatusBarFormat::waybar: {
      std::string tooltip;
      for (const auto& line : content.tooltip)
        tooltip += (tooltip.empty() ? "" : "\n") + escapedForMarkup(line);
      json object{{"text", escapedForMarkup(content.text)},
                  {"alt", content.mood},
                  {"tooltip", tooltip},
                  {"class", content.classes}};
      if (content.percentage) object["percentage"] = *content.percentage;
      return dumped(object);
    }
    case StatusBarFormat::i3blocks:
      return dumped({{"full_text", content.text},
                     {"short_text", content.shortText},
                     {"color", colourOf(content.mood)}});
    case StatusBarFormat::polybar:
      return "%{F" + std::string(colourOf(content.mood)) + "}" + escapedForPolybar(content.text) + "%{F-}";
    case StatusBarFormat::plain:
      break;
  }
  return content.text;
}

}  // namespace

std::optional<StatusBarFormat> statusBarFormatFromName(std::string_view name) {
  const auto* row = std::ranges::find(formats, name, [](const auto& each) { return each.first; });
  return row == formats.end() ? std::nullopt : std::optional(row->second);
}

std::string statusBarLine(const json& state, StatusBarFormat format, Instant now) {
  return lineOf(contentOf(state, now), format);
}

std::string stoppedBarLine(StatusBarFormat format) {
  return lineOf({.text = sayAs("application", "off"),
                 .shortText = sayAs("application", "off"),
                 .mood = "stopped",
                 .classes = {"stopped"},
                 .tooltip = {say("Vimbrel is not running")},
                 .percentage = {}},
                format);
}

}  // namespace vimbrel
