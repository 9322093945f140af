// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/SessionTable.h"

#include <utility>

namespace vimbrel {
namespace {

std::size_t textBytesOf(const AgentSession& session) {
  const auto length = [](const std::optional<std::string>& text) { return text ? text->size() : 0; };
  return session.id.size() + length(session.cwd) + length(session.hostAppName) +
         length(session.lastEventDescription);
}

}  // namespace

const SessionSnapshot& SessionTable::snapshot() const {
  if (!snapshot_) snapshot_ = SessionSnapshot::fromSorted(entries_);
  return *snapshot_;
}

std::optional<std::size_t> SessionTable::indexOf(std::string_view id) const {
  const auto at = SessionSnapshot::position(entries_, id);
  if (at == entries_.end() || (*at)->id != id) return std::nullopt;
  return static_cast<std::size_t>(at - entries_.begin());
}

void SessionTable::count(const AgentSession& session, bool added) {
  const auto adjust = [added](std::size_t& value, std::size_t by) {
    value = added ? value + by : value - by;
  };
  adjust(textBytes_, textBytesOf(session));
  if (!session.isWorking()) return;
  adjust(workingCount_, 1);
  if (session.integrationType != IntegrationType::process) {
    adjust(reportedWorking_[static_cast<std::size_t>(session.agentType)], 1);
  }
}

void SessionTable::store(AgentSession session) {
  if (const auto index = indexOf(session.id)) {
    replace(*index, std::move(session));
    markHeard(*index);
  } else {
    count(session, true);
    const auto at = SessionSnapshot::position(entries_, session.id) - entries_.begin();
    entries_.insert(entries_.begin() + at, std::make_shared<const AgentSession>(std::move(session)));
    heard_.insert(heard_.begin() + at, ++clock_);
    snapshot_.reset();
  }
  makeRoom();
}

void SessionTable::replace(std::size_t index, AgentSession session) {
  count(*entries_[index], false);
  count(session, true);
  entries_[index] = std::make_shared<const AgentSession>(std::move(session));
  snapshot_.reset();
}

void SessionTable::remove(std::size_t index) {
  count(*entries_[index], false);
  const auto at = static_cast<std::ptrdiff_t>(index);
  entries_.erase(entries_.begin() + at);
  heard_.erase(heard_.begin() + at);
  snapshot_.reset();
}

void SessionTable::clear() {
  entries_.clear();
  heard_.clear();
  textBytes_ = 0;
  workingCount_ = 0;
  reportedWorking_ = {};
  snapshot_.reset();
}

void SessionTable::makeRoom() {
  while (entries_.size() > limits_.sessions || textBytes_ > limits_.textBytes) {
    remove(longestSilent());
    ++dropped_;
  }
}

std::size_t SessionTable::longestSilent() const {
  const auto urgency = [this](std::size_t index) {
    return std::pair{entries_[index]->isWorking(), heard_[index]};
  };
  std::size_t best = 0;
  for (std::size_t i = 1; i < entries_.size(); ++i) {
    if (urgency(i) < urgency(best)) best = i;
  }
  return best;
}

}  // namespace vimbrel
