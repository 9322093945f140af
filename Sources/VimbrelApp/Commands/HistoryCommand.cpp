// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Terminal/HistoryView.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;
using std::chrono::days;
using std::chrono::sys_days;

namespace {

/// How many days are shown, the last one included, unless "--since" says otherwise.
constexpr days shownDays{7};

/// A day ("2026-01-31") as its first instant in the user's calendar, `offset` days later, or an ISO 8601
/// time.
std::optional<Instant> momentOf(const std::string& text, days offset) {
  if (const auto exact = parseIso8601(text)) return exact;
  if (text.size() != 10) return std::nullopt;
  const auto noon = parseIso8601(text + "T12:00:00Z");
  if (!noon) return std::nullopt;
  const auto day = std::chrono::floor<days>(std::chrono::time_point_cast<std::chrono::seconds>(*noon));
  return startOfLocalDay(sys_days{day} + offset);
}

}  // namespace

int historyCommand(const std::string& since, const std::string& until, Output output) {
  json params = json::object();
  const auto now = currentTime();
  const auto to = until.empty() ? now : momentOf(until, days{1});
  if (!to) return reportUsage(say("--until takes a day such as 2026-01-31, or an ISO 8601 time"));
  // A day given as the end is over when the next one begins, which is not shown.
  const sys_days lastDay{localDay(std::min(now, *to - Seconds{1}))};
  const auto from = since.empty() ? startOfLocalDay(lastDay - shownDays + days{1}) : momentOf(since, days{0});
  if (!from) return reportUsage(say("--since takes a day such as 2026-01-31, or an ISO 8601 time"));
  if (until.empty() && *from > now) return reportUsage(say("--since is in the future"));
  if (*to < *from) return reportUsage(say("--until is before --since"));
  params["since"] = formatIso8601(*from, true);
  params["until"] = formatIso8601(*to, true);
  const auto answer = ask("history", params);
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
  } else {
    printLines(historyLines(*answer, outputWidth(STDOUT_FILENO), Palette::forDescriptor(STDOUT_FILENO), now));
  }
  return exitCode::done;
}

}  // namespace vimbrel
