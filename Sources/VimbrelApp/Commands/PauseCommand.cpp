// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DurationText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

using nlohmann::json;

namespace {

/// The next time at which the user's clock shows "14:00"; absent when the text is no time of day.
std::optional<Instant> nextTimeOfDay(const std::string& text, Instant now) {
  int hour = 0;
  int minute = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%2d:%2d%c", &hour, &minute, &rest) != 2) return std::nullopt;
  if (hour < 0 || hour > 23 || minute < 0 || minute > 59) return std::nullopt;
  for (int day = 0; day <= 1; ++day) {
    auto fields = localFields(now);
    fields.tm_mday += day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = 0;
    fields.tm_isdst = -1;
    const auto moment = instantFromUnixSeconds(static_cast<double>(std::mktime(&fields)));
    if (moment > now) return moment;
  }
  return std::nullopt;
}

int reportState(const std::expected<json, int>& state) {
  if (!state) return state.error();
  const auto description = state->value("statusDescription", std::string{});
  std::string line = displayable(retell(description));
  if (const auto until = state->find("pauseUntil"); until != state->end() && until->is_string()) {
    if (const auto moment = parseIso8601(until->get<std::string>())) {
      line = say("%1, until %2", {line, localTime(*moment, currentTime())});
    }
  }
  std::puts(line.c_str());
  if (isHeldInVain(*state)) (void)reportProblem(say("Held: %1", {heldSentence(*state)}));
  return exitCode::done;
}

}  // namespace

int pauseCommand(const std::vector<std::string>& when) {
  const auto now = currentTime();
  if (when.size() == 2 && when[0] == "until") {
    const auto moment = nextTimeOfDay(when[1], now);
    if (!moment) return reportUsage(say("\"%1\" is no time of day; write it like 14:00", {when[1]}));
    return reportState(ask("pause", {{"until", formatIso8601(*moment)}}));
  }
  if (when.size() != 1) return reportUsage(say("pause takes a duration such as 45m, or: until 14:00"));
  const auto duration = parseDuration(when[0]);
  if (!duration) return reportUsage(retell(duration.error()));
  return reportState(ask("pause", {{"seconds", duration->count()}}));
}

int resumeCommand() { return reportState(ask("resume", json::object())); }

int holdCommand(bool on) { return reportState(ask("hold", {{"on", on}})); }

}  // namespace vimbrel
