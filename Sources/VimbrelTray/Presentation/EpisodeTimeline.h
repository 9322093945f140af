// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Presentation/Tone.h"
#include "Support/Instant.h"

namespace vimbrel::desktop {

/// One protection episode's part of one day.
struct TimelineBar {
  double from = 0;  ///< of the day, 0 to 1
  double to = 0;    ///< of the day, 0 to 1
  Tone tone = Tone::good;
  bool isDeep = false;  ///< the lid was to be covered too
  std::string label;    ///< "10:00 to 11:30 (1 h 30 min): Claude Code working; finished"
  bool operator==(const TimelineBar&) const = default;
};

struct TimelineDay {
  std::chrono::year_month_day day;
  std::string name;  ///< "Sat 31 Jan"
  std::vector<TimelineBar> bars;
  double seconds = 0;      ///< protected on that day, without what was not held
  std::string protection;  ///< "3 h 5 min"; empty when there was none
  bool operator==(const TimelineDay&) const = default;
};

struct EpisodeRow {
  std::string start;
  std::string duration;  ///< "1 h 30 min", and how much of it was not held
  std::string reasons;
  std::string ending;
  std::string battery;  ///< "80 % → 64 %"; empty without a battery
  Tone tone = Tone::plain;
  bool operator==(const EpisodeRow&) const = default;
};

struct EpisodeTimeline {
  std::vector<TimelineDay> days;     ///< newest first, from the oldest episode's day on, at most `mostDays`
  std::vector<EpisodeRow> episodes;  ///< newest first
  std::string total;                 ///< one sentence about all of them
  static constexpr int mostDays = 31;
  bool operator==(const EpisodeTimeline&) const = default;
};

/// From the result of "history".
[[nodiscard]] EpisodeTimeline makeEpisodeTimeline(const nlohmann::json& result, Instant now);

}  // namespace vimbrel::desktop
