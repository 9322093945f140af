// SPDX-License-Identifier: Apache-2.0
#include "Presentation/EpisodeTimeline.h"

#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "DateWords.h"
#include "Domain/ProtectionEpisode.h"
#include "Presentation/JsonFields.h"
#include "Presentation/TimeText.h"
#include "Say.h"
#include "Support/CalendarDay.h"
#include "Support/DurationText.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

std::string clockText(Instant moment) {
  const auto fields = localFields(moment);
  char buffer[64];
  return {buffer, std::strftime(buffer, sizeof buffer, "%H:%M", &fields)};
}

std::string endingText(const ProtectionEpisode& episode) {
  switch (episode.ending) {
    case EpisodeEnding::ongoing:
      return say("still going on");
    case EpisodeEnding::finished:
      return episode.workingSeconds.empty() ? say("the hold ended") : say("agents were done");
    case EpisodeEnding::blocked:
      return episode.block ? retell(rawValue(*episode.block)) : say("cut off");
    case EpisodeEnding::stopped:
      return say("Vimbrel was stopped");
    case EpisodeEnding::interrupted:
      break;
  }
  return say("interrupted without a word");
}

std::string durationText(const ProtectionEpisode& episode) {
  auto text = formatDuration(Seconds(episode.seconds()));
  if (episode.unheldSeconds < 1) return text;
  return say("%1 (not held for %2)", {std::move(text), formatDuration(Seconds(episode.unheldSeconds))});
}

Tone toneOf(const ProtectionEpisode& episode) {
  if (episode.wasNeverHeld()) return Tone::bad;
  if (episode.ending == EpisodeEnding::interrupted) return Tone::warning;
  if (episode.ending == EpisodeEnding::blocked && episode.block && isCriticalSafety(*episode.block)) {
    return Tone::bad;
  }
  return Tone::good;
}

std::string joined(const std::vector<std::string>& texts) {
  std::string result;
  for (const auto& text : texts) result += (result.empty() ? "" : "; ") + retell(text);
  return result;
}

/// The part of the episode that lies in the day, if there is one.
void addTo(TimelineDay& day, const ProtectionEpisode& episode) {
  const auto begin = startOfLocalDay(day.day);
  const auto end = startOfLocalDay(std::chrono::sys_days(day.day) + std::chrono::days(1));
  const auto from = std::max(begin, episode.startedAt);
  const auto to = std::min(end, episode.endedAt);
  if (to < from || from >= end) return;
  const double length = (end - begin).count();
  TimelineBar bar{.from = (from - begin).count() / length, .to = (to - begin).count() / length};
  bar.tone = toneOf(episode);
  bar.isDeep = episode.wasDeepHoldWanted;
  bar.label =
      say("%1 to %2 (%3): %4; %5", {clockText(episode.startedAt), clockText(episode.endedAt),
                                    durationText(episode), joined(episode.reasons), endingText(episode)});
  day.bars.push_back(std::move(bar));
  // When in its time it was not held is not kept, so that each part of it counts with its share.
  if (to > from) day.seconds += (to - from).count() / episode.seconds() * episode.heldSeconds();
}

EpisodeRow makeRow(const ProtectionEpisode& episode, Instant now) {
  EpisodeRow row{.start = momentText(episode.startedAt, now),
                 .duration = durationText(episode),
                 .reasons = joined(episode.reasons),
                 .ending = endingText(episode),
                 .tone = toneOf(episode)};
  if (episode.batteryAtStart && episode.batteryAtEnd) {
    row.battery =
        say("%1 % → %2 %", {std::to_string(*episode.batteryAtStart), std::to_string(*episode.batteryAtEnd)});
  }
  return row;
}

std::string totalText(const ProtectionTotals& totals) {
  if (totals.episodes == 0) return say("Nothing has kept this machine awake yet.");
  const auto text = say("Kept awake for %1 in all, %2", {formatDuration(Seconds(totals.protectedSeconds)),
                                                         sayCount(totals.episodes, "once", "%1 times")});
  if (totals.safetyCutoffs == 0) return text;
  return text + "; " +
         sayCount(totals.safetyCutoffs, "cut off for safety once", "cut off for safety %1 times");
}

}  // namespace

EpisodeTimeline makeEpisodeTimeline(const json& result, Instant now) {
  std::vector<ProtectionEpisode> episodes;
  for (const auto& each : memberOf(result, "episodes")) {
    if (auto episode = protectionEpisodeFromJson(each)) {
      if (episode->ending == EpisodeEnding::ongoing) episode->endedAt = std::max(episode->endedAt, now);
      episodes.push_back(std::move(*episode));
    }
  }
  EpisodeTimeline timeline;
  timeline.total = totalText(totalsOf(episodes));
  if (episodes.empty()) return timeline;
  std::ranges::sort(episodes, std::greater{}, &ProtectionEpisode::startedAt);
  const auto oldest = std::chrono::sys_days(localDay(episodes.back().startedAt));
  auto date = std::chrono::sys_days(localDay(now));
  for (int count = 0; count < EpisodeTimeline::mostDays && date >= oldest; ++count) {
    TimelineDay day{.day = date, .name = shortDate(date)};
    for (const auto& episode : episodes) addTo(day, episode);
    if (day.seconds > 0) day.protection = formatDuration(Seconds(day.seconds));
    timeline.days.push_back(std::move(day));
    date -= std::chrono::days(1);
  }
  for (const auto& episode : episodes) timeline.episodes.push_back(makeRow(episode, now));
  return timeline;
}

}  // namespace vimbrel::desktop
