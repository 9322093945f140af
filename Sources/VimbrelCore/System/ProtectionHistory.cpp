// SPDX-License-Identifier: Apache-2.0
#include "System/ProtectionHistory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>

#include "Support/AtomicFile.h"
#include "Support/Directories.h"
#include "Support/OwnFile.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

// Bounds what one endless episode may keep: its first reasons and changes tell what it was.
constexpr std::size_t mostReasons = 32;
constexpr std::size_t mostCounts = 500;
// The debounce names its remaining seconds; as a reason it is one.
constexpr std::string_view debouncePrefix = "Release debounce";

/// By the user's own hold or a command's, whatever agents do.
bool isHeldBesideAgents(const PolicyEvaluationContext& context) {
  return context.config.manualHoldEnabled || !context.commandHold.empty();
}

std::string lineOf(const ProtectionEpisode& episode) {
  return toJson(episode).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string ProtectionHistory::defaultPath() {
  return directories::applicationSupport() + "/Vimbrel/history.jsonl";
}

ProtectionHistory::ProtectionHistory(Options options, const Clock& clock)
    : options_(std::move(options)), clock_(clock) {
  load();
}

void ProtectionHistory::load() {
  const auto text = readFile(options_.path);
  std::string_view rest = text ? std::string_view(*text) : std::string_view{};
  while (!rest.empty()) {
    const auto newline = std::min(rest.find('\n'), rest.size());
    // A line that was torn by a crash does not parse and is left out.
    if (const auto json = parseJson(rest.substr(0, newline))) {
      if (auto episode = protectionEpisodeFromJson(*json)) ended_.push_back(std::move(*episode));
    }
    rest.remove_prefix(std::min(newline + 1, rest.size()));
  }
  const auto openText = readFile(options_.path + ".open");
  if (!openText) return;
  if (const auto json = parseJson(*openText)) {
    if (auto episode = protectionEpisodeFromJson(*json)) {
      episode->ending = EpisodeEnding::interrupted;
      append(*episode);
    }
  }
  ::unlink((options_.path + ".open").c_str());
}

void ProtectionHistory::didDecide(const PolicyEvaluationContext& context,
                                  const SessionSnapshot::Entries& /*newestFirst*/,
                                  const WakeDecision& decision) {
  lastBattery_ = context.powerSource.batteryPercent;
  if (const auto* hold = decision.asHold()) {
    if (!open_) {
      // What holds for a test alone is no time of protection.
      const auto trials = std::ranges::count_if(context.sessions.entries(), [&](const auto& session) {
        return session->isWorking() && isOnTrial(*session);
      });
      if (trials > 0 && trials == hold->activeAgentCount && !isHeldBesideAgents(context)) return;
      begin(context);
    }
    update(context, *hold);
    return;
  }
  if (!open_) return;
  extend(context.now);
  const auto* blocked = decision.asBlocked();
  if (blocked != nullptr) {
    end(EpisodeEnding::blocked, blocked->block);
  } else {
    end(EpisodeEnding::finished, std::nullopt);
  }
}

void ProtectionHistory::didApply(const WakeDecision& /*previous*/, const WakeDecision& next) {
  // Only now: what is decided is not yet held.
  isUnheld_ = next.isHolding() && options_.isHeld && !options_.isHeld();
}

void ProtectionHistory::didStop() {
  if (!open_) return;
  extend(clock_.now());
  end(EpisodeEnding::stopped, std::nullopt);
}

bool ProtectionHistory::isOnTrial(const AgentSession& session) const {
  return options_.isOnTrial && options_.isOnTrial(session.id);
}

void ProtectionHistory::begin(const PolicyEvaluationContext& context) {
  open_.emplace();
  open_->startedAt = open_->endedAt = context.now;
  open_->batteryAtStart = context.powerSource.batteryPercent;
  lastWritten_ = context.now - options_.checkpoint;
}

void ProtectionHistory::update(const PolicyEvaluationContext& context, const WakeDecision::Hold& hold) {
  // A wall clock that was set back must not make time run backwards here, nor one set forward add hours of
  // work.
  const auto elapsed = std::clamp((context.now - open_->endedAt).count(), 0.0, 10.0);
  extend(context.now);

  std::set<AgentType> working;
  std::int64_t count = 0;
  bool hasTrial = false;  // the reason then names its agent, and is not kept
  for (const auto& session : context.sessions.entries()) {
    if (!session->isWorking()) continue;
    if (isOnTrial(*session)) {
      hasTrial = true;
      continue;
    }
    ++count;
    working.insert(session->agentType);
  }
  for (const auto agent : working) open_->workingSeconds[agent] += elapsed;
  if ((open_->counts.empty() || open_->counts.back().count != count) && open_->counts.size() < mostCounts) {
    open_->counts.push_back({context.now, count});
  }
  const auto reason = hold.reason.starts_with(debouncePrefix) ? std::string(debouncePrefix) : hold.reason;
  bool changed = false;
  if (!hasTrial && std::ranges::find(open_->reasons, reason) == open_->reasons.end() &&
      open_->reasons.size() < mostReasons) {
    open_->reasons.push_back(reason);
    changed = true;
  }
  if (options_.isLidCovered && options_.isLidCovered()) open_->wasLidCovered = true;
  open_->wasDeepHoldWanted = open_->wasDeepHoldWanted || hold.requiresDeepHold;
  if (changed || context.now - lastWritten_ >= options_.checkpoint) {
    lastWritten_ = context.now;
    writeOpen();
  }
}

void ProtectionHistory::extend(Instant now) {
  const auto endsAt = std::max(open_->endedAt, now);
  if (isUnheld_) open_->unheldSeconds += (endsAt - open_->endedAt).count();
  open_->endedAt = endsAt;
}

void ProtectionHistory::end(EpisodeEnding ending, std::optional<SafetyBlock> block) {
  open_->ending = ending;
  open_->block = block;
  open_->batteryAtEnd = lastBattery_;
  append(*open_);
  open_.reset();
  ::unlink((options_.path + ".open").c_str());
}

void ProtectionHistory::writeOpen() {
  if (const auto written = replaceOwnFile(options_.path + ".open", lineOf(*open_)); !written) {
    logger_.error("Failed to save the history: %s", written.error().text().c_str());
  }
}

void ProtectionHistory::append(const ProtectionEpisode& episode) {
  ended_.push_back(episode);
  // Cut to half, so that it is not cut again at every episode.
  if (ended_.size() > options_.mostEpisodes) {
    ended_.erase(ended_.begin(), ended_.end() - static_cast<std::ptrdiff_t>(options_.mostEpisodes / 2));
    std::string text;
    for (const auto& kept : ended_) text += lineOf(kept);
    if (const auto written = replaceOwnFile(options_.path, text); !written) {
      logger_.error("Failed to save the history: %s", written.error().text().c_str());
    }
    return;
  }
  const auto file = openOwnFile(options_.path, O_WRONLY | O_CREAT | O_APPEND);
  if (!file) {
    logger_.error("Failed to save the history: %s", file.error().text().c_str());
    return;
  }
  // Begins with a line's end, in case a crash or a full disk tore the line before; empty lines are skipped.
  const auto line = "\n" + lineOf(episode);
  if (::write(file->get(), line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
    logger_.error("Failed to save the history: %s could not be written whole", options_.path.c_str());
  }
}

std::vector<ProtectionEpisode> ProtectionHistory::episodes(std::optional<Instant> since,
                                                           std::optional<Instant> until) const {
  std::vector<ProtectionEpisode> found;
  const auto consider = [&](const ProtectionEpisode& episode) {
    if (since && episode.endedAt < *since) return;
    if (until && episode.startedAt > *until) return;
    found.push_back(episode);
  };
  for (const auto& episode : ended_) consider(episode);
  if (open_) consider(*open_);
  return found;
}

}  // namespace vimbrel
