// SPDX-License-Identifier: Apache-2.0
#include "Terminal/HistoryView.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "DateWords.h"
#include "Domain/AgentType.h"
#include "Domain/ProtectionEpisode.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DurationText.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"
#include "Terminal/Table.h"

namespace vimbrel {

using nlohmann::json;
using std::chrono::days;
using std::chrono::sys_days;
using std::chrono::year_month_day;

namespace {

/// Days that are drawn even when nothing happened on them, if there are no more than these.
constexpr int mostDays = 62;

/// What of one day was protected, in cells of equal length.
struct DayLine {
  std::vector<double> share;  ///< of each cell, 0 to 1
  std::vector<bool> isCutOff;
  Seconds total{0};
};

std::vector<ProtectionEpisode> episodesOf(const json& history) {
  std::vector<ProtectionEpisode> episodes;
  for (const auto& each : history.value("episodes", json::array())) {
    // One of a later version, perhaps: what this one cannot read it leaves out.
    if (auto episode = protectionEpisodeFromJson(each)) episodes.push_back(*std::move(episode));
  }
  return episodes;
}

bool isSafetyCutOff(const ProtectionEpisode& episode) {
  return episode.block && isCriticalSafety(*episode.block);
}

DayLine dayLine(const std::vector<ProtectionEpisode>& episodes, sys_days day, std::size_t cells) {
  const auto start = startOfLocalDay(year_month_day{day});
  const auto end = startOfLocalDay(year_month_day{day + days{1}});
  const Seconds cell = (end - start) / static_cast<double>(cells);
  DayLine line{std::vector<double>(cells), std::vector<bool>(cells), Seconds{0}};
  for (const auto& episode : episodes) {
    const auto from = std::max(episode.startedAt, start);
    const auto to = std::min(episode.endedAt, end);
    // When in its time it was not held is not kept, so that each part of it counts with its share.
    const auto heldShare = episode.seconds() > 0 ? episode.heldSeconds() / episode.seconds() : 1;
    if (from < to) line.total += (to - from) * heldShare;
    for (std::size_t i = 0; i < cells; ++i) {
      const auto cellStart = start + cell * static_cast<double>(i);
      const auto overlap = std::min(to, cellStart + cell) - std::max(from, cellStart);
      line.share[i] += std::max(overlap, Seconds{0}) / cell * heldShare;
      const bool endsHere = episode.endedAt >= cellStart && episode.endedAt < cellStart + cell;
      if (endsHere && isSafetyCutOff(episode)) line.isCutOff[i] = true;
    }
  }
  return line;
}

std::string drawn(const DayLine& line, const Palette& palette) {
  static constexpr std::array blocks{"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  std::string text;
  for (std::size_t i = 0; i < line.share.size(); ++i) {
    if (line.isCutOff[i]) {
      text += palette.paint(Tone::bad, "x");
    } else if (line.share[i] <= 0) {
      text += palette.paint(Tone::dim, "·");
    } else {
      const auto step = static_cast<int>(std::ceil(std::min(line.share[i], 1.0) * 8)) - 1;
      text += palette.paint(Tone::good, blocks.at(static_cast<std::size_t>(std::clamp(step, 0, 7))));
    }
  }
  return text;
}

std::string nameOf(sys_days day) {
  const year_month_day date{day};
  char text[32];
  std::snprintf(text, sizeof text, " %04d-%02u-%02u", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return weekdayName(std::chrono::weekday{day}) + text;
}

void addDays(std::vector<std::string>& lines, const std::vector<ProtectionEpisode>& episodes,
             std::size_t width, const Palette& palette) {
  constexpr std::size_t labelWidth = 16;
  constexpr std::size_t totalWidth = 14;
  const std::size_t cells = width == 0 || width >= labelWidth + 48 + totalWidth ? 48 : 24;
  std::string hours(labelWidth, ' ');
  for (const int hour : {0, 6, 12, 18}) hours += padded(std::to_string(hour), cells / 4);
  lines.push_back(palette.paint(Tone::dim, hours + "24"));

  const sys_days first{localDay(episodes.front().startedAt)};
  auto last = first;
  for (const auto& episode : episodes) last = std::max(last, sys_days{localDay(episode.endedAt)});
  const bool showsEmpty = (last - first).count() < mostDays;
  for (auto day = first; day <= last; day += days{1}) {
    const auto line = dayLine(episodes, day, cells);
    const bool isEmpty = line.total <= Seconds{0};
    if (isEmpty && !showsEmpty) continue;
    lines.push_back(padded(nameOf(day), labelWidth) + drawn(line, palette) +
                    (isEmpty ? "" : "  " + formatDuration(line.total)));
  }
}

std::string agentsOf(const ProtectionEpisode& episode) {
  std::string text;
  for (const auto& [agent, seconds] : episode.workingSeconds) {
    if (!text.empty()) text += ", ";
    text += retell(displayName(agent)) + " " + formatDuration(Seconds{seconds});
  }
  if (!text.empty()) return text;
  return episode.reasons.empty() ? "" : retell(episode.reasons.front());
}

std::string endingOf(const ProtectionEpisode& episode) {
  switch (episode.ending) {
    case EpisodeEnding::ongoing:
      return say("goes on");
    case EpisodeEnding::finished:
      return episode.workingSeconds.empty() ? say("the hold ended") : say("agents finished");
    case EpisodeEnding::blocked:
      return episode.block ? retell(rawValue(*episode.block)) : say("blocked");
    case EpisodeEnding::stopped:
      return say("Vimbrel was stopped");
    case EpisodeEnding::interrupted:
      break;
  }
  return say("Vimbrel or the machine ended");
}

std::string batteryOf(const ProtectionEpisode& episode) {
  const auto percent = [](std::optional<std::int64_t> value) {
    return value ? std::to_string(*value) : std::string("?");
  };
  if (!episode.batteryAtStart && !episode.batteryAtEnd) return "";
  if (episode.ending == EpisodeEnding::ongoing) return percent(episode.batteryAtStart) + " %";
  return percent(episode.batteryAtStart) + " -> " + percent(episode.batteryAtEnd) + " %";
}

std::string lidOf(const ProtectionEpisode& episode) {
  if (episode.wasLidCovered) return say("covered");
  return episode.wasDeepHoldWanted ? say("not covered") : "";
}

}  // namespace

std::vector<std::string> historyLines(const json& history, std::size_t width, const Palette& palette,
                                      Instant now) {
  const auto episodes = episodesOf(history);
  if (episodes.empty()) return {say("Nothing was protected in this time")};
  std::vector<std::string> lines;
  addDays(lines, episodes, width, palette);
  lines.emplace_back();

  Table table({sayAs("history", "FROM"), sayAs("history", "FOR"), say("ENDED BY"), say("AT WORK"),
               say("BATTERY"), say("LID")});
  for (const auto& episode : episodes) {
    const bool isGood = episode.ending == EpisodeEnding::finished || episode.ending == EpisodeEnding::ongoing;
    auto duration = formatDuration(Seconds{episode.seconds()});
    if (episode.unheldSeconds >= 1) {
      duration = say("%1 (not held for %2)", {duration, formatDuration(Seconds{episode.unheldSeconds})});
    }
    table.addRow({{localTime(episode.startedAt, now)},
                  {duration, episode.unheldSeconds >= 1 ? Tone::bad : Tone::plain},
                  {endingOf(episode), isGood ? Tone::plain : Tone::warning},
                  {agentsOf(episode), Tone::strong},
                  {batteryOf(episode)},
                  {lidOf(episode), Tone::dim}});
  }
  for (auto& line : table.lines(width, palette)) lines.push_back(std::move(line));
  lines.emplace_back();

  const auto totals = totalsOf(episodes);
  lines.push_back(sayCount(totals.episodes, "Protected for %2 in %1 episode",
                           "Protected for %2 in %1 episodes",
                           {formatDuration(Seconds{totals.protectedSeconds})}) +
                  "; " + sayCount(totals.safetyCutoffs, "%1 safety cut-off", "%1 safety cut-offs"));
  std::string prevented;
  for (const auto& [agent, count] : totals.sleepsPrevented) {
    prevented += (prevented.empty() ? "" : ", ") + retell(displayName(agent)) + " " + std::to_string(count);
  }
  if (!prevented.empty()) lines.push_back(say("Sleeps prevented: %1", {prevented}));
  return lines;
}

}  // namespace vimbrel
