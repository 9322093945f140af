// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageReports.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>

namespace vimbrel {
namespace {

using namespace std::chrono;

constexpr std::array<std::pair<std::string_view, UsageGrouping>, 7> names{{
    {"daily", UsageGrouping::daily},
    {"weekly", UsageGrouping::weekly},
    {"monthly", UsageGrouping::monthly},
    {"sessions", UsageGrouping::sessions},
    {"models", UsageGrouping::models},
    {"projects", UsageGrouping::projects},
    {"blocks", UsageGrouping::blocks},
}};

// Subscriptions meter their use in windows of this length, which begin at a full hour.
constexpr double blockSeconds = 5 * 3600;

std::string dayText(year_month_day day) {
  char text[32];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return text;
}

/// Finds each event's day, with the last one at hand: events come mostly in order, and the C library's
/// calendar is slow.
class DayCache {
 public:
  explicit DayCache(CalendarZone zone) : zone_(std::move(zone)) {}

  year_month_day dayOf(Instant instant) {
    if (!(instant >= start_ && instant < end_)) {
      day_ = zone_.dayOf(instant);
      start_ = zone_.startOf(day_);
      end_ = zone_.startOf(sys_days{day_} + days{1});
    }
    return day_;
  }

 private:
  const CalendarZone zone_;
  year_month_day day_{};
  Instant start_ = instantFromUnixSeconds(1);
  Instant end_ = instantFromUnixSeconds(0);
};

bool isByTime(UsageGrouping grouping) {
  return grouping == UsageGrouping::daily || grouping == UsageGrouping::weekly ||
         grouping == UsageGrouping::monthly || grouping == UsageGrouping::blocks;
}

}  // namespace

std::optional<UsageGrouping> usageGroupingFromName(std::string_view name) {
  for (const auto& [text, grouping] : names) {
    if (text == name) return grouping;
  }
  return std::nullopt;
}

std::string isoWeek(year_month_day day) {
  // A week belongs to the year that its Thursday is in.
  const auto weekdayNumber = weekday{sys_days{day}}.iso_encoding();
  const year_month_day thursday{sys_days{day} + days{4} - days{weekdayNumber}};
  const auto ordinal = (sys_days{thursday} - sys_days{thursday.year() / January / 1}).count();
  char text[32];
  std::snprintf(text, sizeof text, "%04d-W%02d", static_cast<int>(thursday.year()),
                static_cast<int>(ordinal / 7 + 1));
  return text;
}

UsageReport makeUsageReport(const UsageStore& store, const UsageQuery& query,
                            const std::function<std::optional<std::string>(std::string_view)>& projectOf) {
  constexpr double always = 1e300;
  std::map<std::string, UsageSummaryBuilder> groups;
  UsageSummaryBuilder total;
  DayCache calendar(query.zone);
  std::set<std::string, std::less<>> unpriced;
  std::vector<double> blockStarts;

  const auto since = query.since.value_or(instantFromUnixSeconds(-always));
  const auto until = query.until.value_or(instantFromUnixSeconds(always));
  const auto isWanted = [&](const UsageEventView& event) {
    return !query.agent || event.agentType == *query.agent;
  };

  if (query.grouping == UsageGrouping::blocks) {
    // A window begins with the first use after the one before has ended, so all times must be known first.
    std::vector<double> times;
    store.forEachEvent(since, until, [&](const UsageEventView& event) {
      if (isWanted(event)) times.push_back(unixSeconds(event.timestamp));
    });
    std::sort(times.begin(), times.end());
    for (const auto time : times) {
      if (blockStarts.empty() || time >= blockStarts.back() + blockSeconds) {
        blockStarts.push_back(std::floor(time / 3600) * 3600);
      }
    }
  }
  const auto keyOf = [&](const UsageEventView& event) -> std::string {
    switch (query.grouping) {
      case UsageGrouping::daily:
        return dayText(calendar.dayOf(event.timestamp));
      case UsageGrouping::weekly:
        return isoWeek(calendar.dayOf(event.timestamp));
      case UsageGrouping::monthly:
        return dayText(calendar.dayOf(event.timestamp)).substr(0, 7);
      case UsageGrouping::sessions:
        return std::string(event.sessionId);
      case UsageGrouping::models:
        return std::string(event.modelId.value_or("unknown"));
      case UsageGrouping::projects:
        return projectOf(event.sessionId).value_or("unknown");
      case UsageGrouping::blocks:
        break;
    }
    const auto after = std::upper_bound(blockStarts.begin(), blockStarts.end(), unixSeconds(event.timestamp));
    return formatIso8601(instantFromUnixSeconds(after == blockStarts.begin() ? 0 : *std::prev(after)));
  };

  UsageReport report;
  store.forEachEvent(since, until, [&](const UsageEventView& event) {
    if (!isWanted(event)) return;
    groups[keyOf(event)].add(event);
    total.add(event);
    const std::string_view model = event.modelId.value_or("unknown");
    if (!event.costEstimateUSD && event.tokenFigure() > 0 && !unpriced.contains(model)) {
      unpriced.emplace(model);
    }
  });
  report.unpricedModels.assign(unpriced.begin(), unpriced.end());
  for (const auto& [key, group] : groups) report.rows.push_back({key, group.summary()});
  report.total = total.summary();
  if (!isByTime(query.grouping)) {
    std::stable_sort(report.rows.begin(), report.rows.end(), [](const UsageRow& a, const UsageRow& b) {
      return a.summary.totalTokens > b.summary.totalTokens;
    });
  }
  return report;
}

}  // namespace vimbrel
