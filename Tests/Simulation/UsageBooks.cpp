// SPDX-License-Identifier: Apache-2.0
#include "Simulation/UsageBooks.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "Support/CalendarDay.h"

namespace vimbrel {

UsageBooks::UsageBooks(const SimulatedDisk& disk) : disk_(disk) {
  std::filesystem::create_directories(logs_.file("projects/p"));
}

std::shared_ptr<UsageCoordinator> UsageBooks::makeCoordinator(VirtualTime& time,
                                                              const std::string& directory) {
  UsageCoordinator::Parts parts;
  parts.mainQueue = time.mainQueue();
  parts.workQueue = time.makeQueue("usage", QueueHome::background);
  parts.openStore = [this, &time, directory]() -> std::expected<std::unique_ptr<UsageStore>, std::string> {
    UsageStoreOptions options;
    options.path = directory + "/usage_store.json";
    options.wholeFileBytes = 2000;  // Small, so that the journal is used.
    options.durability = Durability::process;
    auto opened = UsageStore::open(options, time.mainQueue(), time);
    if (opened) {
      store_ = opened->get();
      if (!violation_) violation_ = differenceFromRemembered();
    } else if (!disk_.isFull() && !violation_) {
      violation_ = "the usage store does not open: " + opened.error();
    }
    return opened;
  };
  parts.providers = {std::make_shared<ClaudeUsageProvider>(std::vector{logs_.path()},
                                                           time.makeQueue("claude", QueueHome::background),
                                                           time, ModelRateCard::builtIn(), nullptr)};
  return std::make_shared<UsageCoordinator>(std::move(parts), time);
}

std::string UsageBooks::agentWrites(const Draw& draw, Instant now) {
  const auto log = "s" + std::to_string(draw(4));
  for (int lines = 1 + draw(6); lines > 0; --lines) {
    // A message is often written again while it streams, with more each time.
    const auto id = "m" + std::to_string(draw(3) == 0 ? draw(20) : nextMessage_++);
    const std::int64_t output = 1 + draw(5000);
    auto& rest = torn_[log];
    rest += R"({"type":"assistant","sessionId":")" + log + R"(","timestamp":")" + formatIso8601(now) +
            R"(","message":{"id":")" + id +
            R"(","model":"claude-opus-5","usage":{"input_tokens":10,"output_tokens":)" +
            std::to_string(output) + "}}}\n";
    // What is written may be cut anywhere and completed by the next write.
    const auto length =
        draw(4) == 0 ? static_cast<std::size_t>(draw(static_cast<int>(rest.size()))) : rest.size();
    append(log, rest.substr(0, length));
    rest.erase(0, length);
    auto& total = written_["claude_" + log + "_" + id];
    total = std::max(total, 10 + output);
  }
  return log;
}

void UsageBooks::agentFinishesItsLines() {
  for (auto& [log, rest] : torn_) {
    append(log, rest);
    rest.clear();
  }
}

void UsageBooks::append(const std::string& log, const std::string& text) {
  std::ofstream(logs_.file("projects/p/" + log + ".jsonl"), std::ios::app | std::ios::binary) << text;
}

UsageBooks::Totals UsageBooks::stored() const {
  Totals totals;
  if (store_ == nullptr) return totals;
  for (const auto& event : store_->allEvents()) {
    totals.emplace(event.deduplicationKey(), event.totalTokens.value_or(0));
  }
  return totals;
}

void UsageBooks::remember() {
  if (store_ != nullptr) remembered_ = stored();
}

std::optional<std::string> UsageBooks::differenceFromRemembered() const {
  const auto found = stored();
  for (const auto& [key, total] : remembered_) {
    const auto entry = found.find(key);
    if (entry == found.end()) return "usage that was stored is lost: " + key;
    if (entry->second < total) return "usage that was stored counts less: " + key;
  }
  return std::nullopt;
}

std::optional<std::string> UsageBooks::check() const {
  const auto events = store_->allEvents();
  const auto totals = stored();
  if (totals.size() != events.size()) return "a usage event is stored twice";
  for (const auto& [key, total] : totals) {
    const auto written = written_.find(key);
    if (key.starts_with("claude_") && (written == written_.end() || total > written->second)) {
      return "usage is stored that nobody wrote: " + key;
    }
  }
  const auto [from, to] = std::pair{instantFromUnixSeconds(-1e15), instantFromUnixSeconds(1e15)};
  if (store_->summary(from, to) != summarise(events)) return "the summary is not the sum of the events";
  std::map<std::string, std::int64_t> bySession;
  for (const auto& event : events) bySession[event.sessionId] += event.totalTokens.value_or(0);
  for (const auto& session : store_->recentSessions()) {
    if (session.totalTokens != bySession[session.id]) return "a session's total is not the sum of its events";
  }
  return std::nullopt;
}

std::optional<std::string> UsageBooks::checkAllIsStored() const {
  const auto totals = stored();
  for (const auto& [key, total] : written_) {
    const auto found = totals.find(key);
    if (found == totals.end() || found->second != total) return "usage of the log is not stored: " + key;
  }
  return std::nullopt;
}

}  // namespace vimbrel
