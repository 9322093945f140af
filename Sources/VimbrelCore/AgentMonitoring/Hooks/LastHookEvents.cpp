// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/LastHookEvents.h"

#include <nlohmann/json.hpp>
#include <optional>

#include "Support/AtomicFile.h"
#include "Support/OwnFile.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

constexpr std::size_t largestFile = 65536;

std::map<AgentType, LastHookEvent> readEvents(const std::string& path) {
  std::map<AgentType, LastHookEvent> events;
  const auto text = readFile(path, largestFile);
  if (!text) return events;
  const auto document = parseJson(*text);
  if (!document || !document->is_object()) return events;
  for (const auto& [name, value] : document->items()) {
    StrictJsonObject fields(value, name);
    const auto agent = agentTypeFromRawValue(name);
    const auto receivedAt = parseIso8601(fields.string("receivedAt"));
    const auto state = agentStateFromRawValue(fields.string("state"));
    // An entry that is not ours costs itself only.
    if (agent && receivedAt && state) events[*agent] = {*receivedAt, *state, 0};
  }
  return events;
}

}  // namespace

LastHookEvents::LastHookEvents(const Clock& clock, std::string path)
    : clock_(clock), path_(std::move(path)), events_(readEvents(path_)) {}

void LastHookEvents::record(const HookEvent& event) {
  const auto now = clock_.now();
  const std::lock_guard guard(lock_);
  if (trials_.contains(event.sessionId)) return;
  auto& last = events_[event.agent];
  last = {now, event.state, last.count + 1};
  isSaved_ = false;
}

std::map<AgentType, LastHookEvent> LastHookEvents::all() const {
  const std::lock_guard guard(lock_);
  return events_;
}

void LastHookEvents::beginTrial(std::string sessionId) {
  const std::lock_guard guard(lock_);
  trials_.insert(std::move(sessionId));
}

void LastHookEvents::endTrial(const std::string& sessionId) {
  const std::lock_guard guard(lock_);
  if (const auto trial = trials_.find(sessionId); trial != trials_.end()) trials_.erase(trial);
}

bool LastHookEvents::isOnTrial(const std::string& sessionId) const {
  const std::lock_guard guard(lock_);
  return trials_.contains(sessionId);
}

void LastHookEvents::save() {
  nlohmann::json document = nlohmann::json::object();
  {
    const std::lock_guard guard(lock_);
    if (isSaved_) return;
    isSaved_ = true;
    for (const auto& [agent, event] : events_) {
      document[std::string(rawValue(agent))] = {{"receivedAt", formatIso8601(event.receivedAt)},
                                                {"state", rawValue(event.state)}};
    }
  }
  if (const auto written = replaceOwnFile(path_, document.dump(2) + "\n"); !written) {
    logger_.error("Cannot keep when agents last reported: %s", written.error().text().c_str());
  }
}

}  // namespace vimbrel
