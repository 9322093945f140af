// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "DateWords.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DollarText.h"
#include "Support/StrictJson.h"
#include "Terminal/DisplayText.h"

namespace vimbrel {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

constexpr std::size_t longestDocument = 1 << 20;
// The line is drawn while the user types: an application that is busy is not waited for.
constexpr auto patience = 150ms;

std::string standardInput() {
  std::string text;
  char buffer[8192];
  for (;;) {
    const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0 || text.size() > longestDocument) return text;
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

/// Outside data: what is missing or of another type is absent.
const json* member(const json* value, const char* key) {
  if (value == nullptr || !value->is_object()) return nullptr;
  const auto found = value->find(key);
  return found == value->end() ? nullptr : &*found;
}

std::optional<double> number(const json* value) {
  if (value == nullptr || !value->is_number()) return std::nullopt;
  const double result = value->get<double>();
  return std::isfinite(result) ? std::optional(result) : std::nullopt;
}

std::optional<std::string> text(const json* value) {
  return value != nullptr && value->is_string() ? std::optional(value->get<std::string>()) : std::nullopt;
}

struct Quota {
  double usedPercent = 0;
  int windowMinutes = 0;
  std::optional<double> resetsAt;  ///< seconds since 1970
};

/// Of the account's two windows, the one of which less is left.
std::optional<Quota> tightestQuota(const json& document) {
  std::optional<Quota> tightest;
  const auto* limits = member(&document, "rate_limits");
  for (const auto& [name, minutes] : {std::pair("five_hour", 300), std::pair("seven_day", 7 * 24 * 60)}) {
    const auto* limit = member(limits, name);
    const auto used = number(member(limit, "used_percentage"));
    if (!used || (tightest && tightest->usedPercent >= *used)) continue;
    tightest = Quota{*used, minutes, std::nullopt};
    const auto* resets = member(limit, "resets_at");
    if (const auto time = text(resets)) {
      if (const auto instant = parseIso8601(*time)) tightest->resetsAt = unixSeconds(*instant);
    } else {
      tightest->resetsAt = number(resets);
    }
  }
  return tightest;
}

std::string percent(double value) { return std::to_string(std::lround(std::clamp(value, 0.0, 100.0))) + "%"; }

/// "14:00" today, "Mon 14:00" later.
std::string clockTime(double unixTime) {
  const auto broken = localFields(instantFromUnixSeconds(std::clamp(unixTime, 0.0, 1e11)));
  char shown[32];
  std::strftime(shown, sizeof shown, "%H:%M", &broken);
  if (unixTime - unixSeconds(currentTime()) <= 86400) return shown;
  return weekdayName(std::chrono::weekday(static_cast<unsigned>(broken.tm_wday))) + " " + shown;
}

/// Hands the application what was measured, and asks what today has cost. Nothing without an application.
std::optional<double> reportTo(const std::string& socket, const json& measured) {
  auto client = ControlClient::connect(socket, patience);
  if (!client) return std::nullopt;
  const auto answer = client->call("statusLine.report", measured, patience);
  if (!answer) return std::nullopt;
  const auto* today = member(&*answer, "today");
  const auto cost = number(member(today, "estimatedCostUSD"));
  // Nothing used is nothing spent; used without a price is unknown.
  return !cost && number(member(today, "totalTokens")) == 0.0 ? std::optional(0.0) : cost;
}

}  // namespace

int statusLineCommand() {
  if (::isatty(STDIN_FILENO) != 0) {
    return reportUsage(
        say("statusline is run by Claude Code: give \"statusLine\": {\"type\": \"command\", "
            "\"command\": \"vimbrel statusline\"} in its settings (docs/usage.md)"));
  }
  const auto parsed = parseJson(standardInput());
  const json document = parsed.value_or(json::object());

  json measured{{"agent", "claude"}};
  std::string line;
  const auto append = [&](const std::string& part) {
    if (!line.empty()) line += " · ";
    line += part;
  };
  const auto* model = member(&document, "model");
  if (const auto id = text(member(model, "id"))) measured["model"] = *id;
  if (const auto session = text(member(&document, "session_id"))) measured["sessionId"] = *session;
  append(displayable(text(member(model, "display_name")).value_or("Claude")));

  const auto* context = member(&document, "context_window");
  const auto window = number(member(context, "context_window_size"));
  if (const auto used = number(member(context, "used_percentage"))) {
    measured["contextUsedPercent"] = *used;
    if (window && *window >= 1 && *window <= 1e12) measured["contextWindow"] = std::llround(*window);
    append(say("%1 context left", {percent(100 - *used)}));
  }
  const auto cost = number(member(member(&document, "cost"), "total_cost_usd"));
  if (cost) measured["costUSD"] = *cost;
  if (const auto quota = tightestQuota(document)) {
    measured["quotaUsedPercent"] = quota->usedPercent;
    measured["quotaWindowMinutes"] = quota->windowMinutes;
    const auto left = percent(100 - quota->usedPercent);
    if (quota->resetsAt) {
      measured["quotaResetsAt"] = *quota->resetsAt;
      append(say("%1 quota left until %2", {left, clockTime(*quota->resetsAt)}));
    } else {
      append(say("%1 quota left", {left}));
    }
  }
  if (const auto today = reportTo(controlSocketPath(), measured)) {
    append(say("%1 today", {dollarText(*today)}));
  } else if (cost) {
    append(sayAs("cost of the", "%1 session", {dollarText(*cost)}));
  }
  std::puts(line.c_str());
  return exitCode::done;
}

}  // namespace vimbrel
