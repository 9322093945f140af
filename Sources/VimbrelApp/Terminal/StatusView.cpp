// SPDX-License-Identifier: Apache-2.0
#include "Terminal/StatusView.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DurationText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/Table.h"

namespace vimbrel {

using nlohmann::json;

namespace {

// The application may be of another version than this client: what is missing is left out, never assumed.
std::string text(const json& object, const char* key) {
  const auto member = object.find(key);
  return member != object.end() && member->is_string() ? member->get<std::string>() : std::string{};
}

bool flag(const json& object, const char* key) {
  const auto member = object.find(key);
  return member != object.end() && member->is_boolean() && member->get<bool>();
}

const json& part(const json& object, const char* key) {
  static const json nothing = json::object();
  const auto member = object.find(key);
  return member == object.end() ? nothing : *member;
}

std::optional<Instant> instant(const json& object, const char* key) {
  return parseIso8601(text(object, key));
}

std::string since(std::optional<Instant> start, Instant now) {
  return start ? formatDuration(std::max(now - *start, Seconds(0))) : "";
}

Tone toneOfDecision(const json& state) {
  if (flag(state, "isHolding")) return Tone::good;
  return part(state, "decision").contains("blocked") ? Tone::bad : Tone::plain;
}

Tone toneOfSession(const std::string& sessionState) {
  if (sessionState == "working") return Tone::good;
  if (sessionState == "waiting") return Tone::warning;
  return sessionState == "error" ? Tone::bad : Tone::dim;
}

std::string powerSentence(const json& state) {
  const auto& power = part(state, "power");
  std::string result = flag(power, "isOnAC") ? say("AC") : say("battery");
  const auto add = [&](const std::string& part) { result += ", " + part; };
  if (const auto percent = power.find("batteryPercent"); percent != power.end() && percent->is_number()) {
    add(std::to_string(percent->get<std::int64_t>()) + " %");
    if (flag(power, "isCharging")) add(say("charging"));
  }
  if (const auto left = power.find("timeRemainingMinutes"); left != power.end() && left->is_number()) {
    add(say("%1 left", {formatDuration(Seconds(60.0 * left->get<double>()))}));
  }
  if (flag(power, "isLowPowerMode")) add(say("low-power mode"));
  return result;
}

std::string joined(const json& list, const char* separator) {
  std::string result;
  for (const auto& each : list) {
    if (!each.is_string()) continue;
    if (!result.empty()) result += separator;
    result += each.get<std::string>();
  }
  return result;
}

std::string notHeldReason(const json& assertions) {
  std::string reason;
  for (const auto& mechanism : part(assertions, "mechanismDetails")) {
    if (!mechanism.is_object() || text(mechanism, "state") == "granted") continue;
    if (!reason.empty()) reason += "; ";
    reason += retell(text(mechanism, "name")) + " " + retell(text(mechanism, "state"));
    if (const auto detail = text(mechanism, "detail"); !detail.empty()) {
      reason += " (" + retell(detail) + ")";
    }
  }
  return reason;
}

/// The widest label of the fields in the user's language, and a blank.
std::size_t fieldLabelWidth() {
  std::size_t width = 8;
  for (const auto* label : {toSay("Held"), toSay("Power"), toSay("Heat"), toSay("Lid"), toSay("Paused"),
                            toSay("Command"), toSay("Warning")}) {
    width = std::max(width, displayWidth(say(label)));
  }
  return width + 1;
}

/// A label, and a text that goes on in its column.
void addField(std::vector<std::string>& lines, std::string_view label, const std::string& value,
              std::size_t width, const Palette& palette, Tone tone = Tone::plain) {
  const auto labelWidth = fieldLabelWidth();
  const auto room = width == 0 ? 0 : std::max<std::size_t>(width - std::min(width, labelWidth), 8);
  bool isFirst = true;
  for (const auto& line : wrapped(displayable(value), room)) {
    lines.push_back(palette.paint(Tone::dim, padded(isFirst ? label : "", labelWidth)) +
                    palette.paint(tone, line));
    isFirst = false;
  }
}

/// Whether the lid may be closed, and what to do when it should be and may not.
void addLid(std::vector<std::string>& lines, const json& state, std::size_t width, const Palette& palette,
            Instant now) {
  const auto& closedLid = part(state, "closedLid");
  const auto cover = text(closedLid, "cover");
  std::string lid = flag(state, "lidClosed") ? sayAs("lid", "closed") : sayAs("lid", "open");
  if (cover == "covered") {
    const auto by = retell(text(closedLid, "coveredBy"));
    const auto until = instant(closedLid, "until");
    lid += "; " +
           (until ? say("may be closed, covered by %1 until %2 unless renewed", {by, localTime(*until, now)})
                  : say("may be closed, covered by %1", {by}));
  } else if (cover == "uncovered" || cover == "notNeeded") {
    lid += "; " + retell(text(closedLid, "explanation"));
  }
  const bool fails = cover == "uncovered";
  addField(lines, say("Lid"), lid, width, palette, fails ? Tone::bad : Tone::plain);
  if (fails) addField(lines, "", "-> " + retell(text(closedLid, "remedy")), width, palette);
  for (const auto& hold : part(state, "commandHolds")) {
    if (!hold.is_object()) continue;
    auto sentence = text(hold, "command");
    if (const auto until = instant(hold, "until")) {
      sentence = say("%1, until %2", {sentence, localTime(*until, now)});
    }
    if (flag(hold, "coversLid")) sentence = say("%1, with the lid", {sentence});
    addField(lines, say("Command"), sentence, width, palette);
  }
}

}  // namespace

std::string localTime(Instant moment, Instant now) {
  const auto then = localFields(moment);
  const auto today = localFields(now);
  const bool isToday = then.tm_yday == today.tm_yday && then.tm_year == today.tm_year;
  char buffer[64];
  const auto length = std::strftime(buffer, sizeof buffer, isToday ? "%H:%M" : "%Y-%m-%d %H:%M", &then);
  return {buffer, length};
}

std::string heldSentence(const json& state) {
  const auto& assertions = part(state, "assertions");
  const bool simulated = flag(assertions, "simulated");
  if (flag(assertions, "system")) {
    const auto what = flag(assertions, "display") ? say("system and display sleep") : say("system sleep");
    if (simulated) {
      const auto reason = notHeldReason(assertions);
      return reason.empty() ? say("%1 of a simulated machine, nothing of this one", {what})
                            : say("%1 of a simulated machine, nothing of this one: %2", {what, reason});
    }
    return say("%1, by %2", {what, joined(part(assertions, "mechanisms"), ", ")});
  }
  if (!flag(state, "isHolding")) return simulated ? say("nothing (simulated)") : say("nothing");
  return say("NOTHING: the machine can fall asleep. %1", {notHeldReason(assertions)});
}

bool isHeldInVain(const json& state) {
  const auto& assertions = part(state, "assertions");
  return flag(state, "isHolding") && (!flag(assertions, "system") || flag(assertions, "simulated"));
}

std::vector<std::string> sessionLines(const json& sessions, std::size_t width, const Palette& palette,
                                      Instant now) {
  Table table({say("AGENT"), say("STATE"), say("LAST EVENT"), say("PID"), say("DIRECTORY")});
  for (const auto& session : sessions) {
    if (!session.is_object()) continue;
    const auto state = text(session, "state");
    const auto agent = agentTypeFromRawValue(text(session, "agentType"));
    const auto known = agentStateFromRawValue(state);
    const auto pid = session.find("pid");
    const auto last = since(instant(session, "lastEventAt"), now);
    table.addRow({{agent ? retell(displayName(*agent)) : text(session, "agentType"), Tone::strong},
                  {known ? retell(displayLabel(*known)) : state, toneOfSession(state)},
                  {last.empty() ? "" : say("%1 ago", {last})},
                  {pid != session.end() && pid->is_number() ? pid->dump() : ""},
                  {text(session, "cwd"), Tone::dim}});
  }
  if (table.empty()) return {};
  return table.lines(width, palette);
}

std::vector<std::string> statusLines(const json& state, std::size_t width, const Palette& palette,
                                     Instant now) {
  std::vector<std::string> lines;
  const auto& assertions = part(state, "assertions");
  if (flag(assertions, "simulated")) {
    for (const auto& line : wrapped(say("SIMULATED: nothing keeps this machine awake"), width)) {
      lines.push_back(palette.paint(Tone::warning, line));
    }
  }
  const auto tone = toneOfDecision(state);
  for (const auto& line : wrapped(displayable(retell(text(state, "statusDescription"))), width)) {
    lines.push_back(palette.paint(tone == Tone::plain ? Tone::strong : tone, line));
  }
  lines.emplace_back();

  const bool fails = flag(state, "isHolding") && !flag(assertions, "system");
  auto held = heldSentence(state);
  if (const auto started = instant(state, "protectionStartedAt"); started && !fails) {
    held = say("%1, for %2", {held, since(started, now)});
  }
  addField(lines, say("Held"), held, width, palette, fails ? Tone::bad : Tone::plain);
  addField(lines, say("Power"), powerSentence(state), width, palette);
  const auto thermal = text(state, "thermalState");
  addField(lines, say("Heat"), retell(thermal), width, palette,
           thermal == "critical" ? Tone::bad : Tone::plain);
  addLid(lines, state, width, palette, now);
  if (const auto until = instant(state, "pauseUntil")) {
    addField(lines, say("Paused"), say("until %1", {localTime(*until, now)}), width, palette, Tone::warning);
  }
  for (const auto& warning : part(state, "warnings")) {
    if (!warning.is_string()) continue;
    addField(lines, say("Warning"), retell(warning.get<std::string>()), width, palette, Tone::warning);
  }
  lines.emplace_back();
  const auto sessions = sessionLines(part(state, "sessions"), width, palette, now);
  if (sessions.empty()) lines.push_back(palette.paint(Tone::dim, say("No agents")));
  lines.insert(lines.end(), sessions.begin(), sessions.end());
  return lines;
}

std::vector<std::string> statusScreen(const json& state, TerminalSize size, const Palette& palette,
                                      Instant now, const std::string& footer, const std::string& notice) {
  std::vector<std::string> below;
  if (!notice.empty()) {
    for (const auto& line : wrapped(displayable(notice), size.columns)) {
      below.push_back(palette.paint(Tone::warning, line));
    }
  }
  below.push_back(palette.paint(Tone::dim, clipped(footer, size.columns)));
  auto lines = statusLines(state, size.columns, palette, now);
  const auto room = size.rows - std::min(size.rows, below.size());
  if (lines.size() > room) {
    const auto hidden = lines.size() - room + 1;
    lines.resize(room);
    if (room > 0) {
      lines.back() = palette.paint(
          Tone::dim, sayCount(static_cast<std::int64_t>(hidden), "… %1 more line", "… %1 more lines"));
    }
  }
  lines.resize(room);
  lines.insert(lines.end(), below.begin(), below.end());
  return lines;
}

}  // namespace vimbrel
