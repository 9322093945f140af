// SPDX-License-Identifier: Apache-2.0
#include "Domain/ProtectionEpisode.h"

#include <nlohmann/json.hpp>

#include "Domain/DateCoding.h"
#include "Domain/RawValueTable.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

struct EndingRow {
  EpisodeEnding value;
  std::string_view raw;
};

constexpr std::array<EndingRow, 5> endings{{
    {EpisodeEnding::ongoing, "ongoing"},
    {EpisodeEnding::finished, "finished"},
    {EpisodeEnding::blocked, "blocked"},
    {EpisodeEnding::stopped, "stopped"},
    {EpisodeEnding::interrupted, "interrupted"},
}};

static_assert(rowsFollowDeclaration(endings));

constexpr auto dates = DateCoding::iso8601;

}  // namespace

std::string_view rawValue(EpisodeEnding ending) { return rowOf(endings, ending).raw; }

ProtectionTotals totalsOf(const std::vector<ProtectionEpisode>& episodes) {
  ProtectionTotals totals;
  for (const auto& episode : episodes) {
    ++totals.episodes;
    totals.protectedSeconds += episode.heldSeconds();
    if (episode.block && isCriticalSafety(*episode.block)) ++totals.safetyCutoffs;
    if (episode.wasNeverHeld()) continue;
    for (const auto& [agent, seconds] : episode.workingSeconds) ++totals.sleepsPrevented[agent];
  }
  return totals;
}

nlohmann::ordered_json toJson(const ProtectionEpisode& episode) {
  nlohmann::ordered_json json;
  json["startedAt"] = encodeInstant(episode.startedAt, dates);
  json["endedAt"] = encodeInstant(episode.endedAt, dates);
  json["ending"] = rawValue(episode.ending);
  if (episode.block) json["block"] = rawValue(*episode.block);
  json["reasons"] = episode.reasons;
  json["workingSeconds"] = nlohmann::ordered_json::object();
  for (const auto& [agent, seconds] : episode.workingSeconds)
    json["workingSeconds"][rawValue(agent)] = seconds;
  json["counts"] = nlohmann::ordered_json::array();
  for (const auto& sample : episode.counts) {
    json["counts"].push_back({{"at", encodeInstant(sample.at, dates)}, {"count", sample.count}});
  }
  json["wasDeepHoldWanted"] = episode.wasDeepHoldWanted;
  json["wasLidCovered"] = episode.wasLidCovered;
  json["unheldSeconds"] = episode.unheldSeconds;
  if (episode.batteryAtStart) json["batteryAtStart"] = *episode.batteryAtStart;
  if (episode.batteryAtEnd) json["batteryAtEnd"] = *episode.batteryAtEnd;
  return json;
}

std::expected<ProtectionEpisode, DecodeError> protectionEpisodeFromJson(const nlohmann::json& value) {
  StrictJsonObject object(value, "episode");
  ProtectionEpisode episode;
  episode.startedAt = readInstant(object, "startedAt", dates);
  episode.endedAt = readInstant(object, "endedAt", dates);
  if (const auto ending = valueWithRaw(endings, object.string("ending"))) {
    episode.ending = *ending;
  } else {
    object.fail("ending", "is not known");
  }
  if (const auto block = object.optionalString("block")) {
    episode.block = safetyBlockFromRawValue(*block);
    if (!episode.block) object.fail("block", "is not known");
  }
  if (const auto* reasons = object.member("reasons"); reasons != nullptr && reasons->is_array()) {
    for (const auto& reason : *reasons) {
      if (reason.is_string()) episode.reasons.push_back(reason.get<std::string>());
    }
  }
  if (const auto* working = object.member("workingSeconds"); working != nullptr && working->is_object()) {
    for (const auto& [name, seconds] : working->items()) {
      const auto agent = agentTypeFromRawValue(name);
      if (agent && seconds.is_number()) episode.workingSeconds[*agent] = seconds.get<double>();
    }
  }
  if (const auto* counts = object.member("counts"); counts != nullptr && counts->is_array()) {
    for (const auto& entry : *counts) {
      StrictJsonObject sample(entry, "count");
      AgentCountSample made{readInstant(sample, "at", dates), sample.integer("count")};
      if (!sample.error()) episode.counts.push_back(made);
    }
  }
  episode.wasDeepHoldWanted = object.boolean("wasDeepHoldWanted");
  episode.wasLidCovered = object.optionalBoolean("wasLidCovered").value_or(false);
  episode.unheldSeconds = object.optionalNumber("unheldSeconds").value_or(0);
  episode.batteryAtStart = object.optionalInteger("batteryAtStart");
  episode.batteryAtEnd = object.optionalInteger("batteryAtEnd");
  if (const auto& error = object.error()) return std::unexpected(DecodeError{*error});
  return episode;
}

nlohmann::ordered_json toJson(const ProtectionTotals& totals) {
  nlohmann::ordered_json json;
  json["episodes"] = totals.episodes;
  json["protectedSeconds"] = totals.protectedSeconds;
  json["safetyCutoffs"] = totals.safetyCutoffs;
  json["sleepsPrevented"] = nlohmann::ordered_json::object();
  for (const auto& [agent, count] : totals.sleepsPrevented) json["sleepsPrevented"][rawValue(agent)] = count;
  return json;
}

}  // namespace vimbrel
