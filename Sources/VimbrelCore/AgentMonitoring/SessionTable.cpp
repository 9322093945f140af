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

SessionSnapshot::Entries& SessionTable::writable() {
  if (entries_.use_count() > 1) {
    entries_ = std::make_shared<SessionSnapshot::Entries>(*entries_);
  } else {
    // Taking another reference orders this behind what the last other owner read before it let go.
    const auto ordered = entries_;
  }
  return *entries_;
}

std::optional<std::size_t> SessionTable::indexOf(std::string_view id) const {
  const auto at = SessionSnapshot::position(*entries_, id);
  if (at == entries_->end() || (*at)->id != id) return std::nullopt;
  return static_cast<std::size_t>(at - entries_->begin());
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
    const auto at = SessionSnapshot::position(*entries_, session.id) - entries_->begin();
    const auto isWorking = session.isWorking();
    order_.emplace(Urgency{isWorking, ++clock_}, session.id);
    auto& entries = writable();
    entries.insert(entries.begin() + at, std::make_shared<const AgentSession>(std::move(session)));
    heard_.insert(heard_.begin() + at, clock_);
  }
  makeRoom();
}

void SessionTable::markHeard(std::size_t index) {
  auto entry = order_.extract(urgencyOf(index));
  heard_[index] = ++clock_;
  entry.key() = urgencyOf(index);
  order_.insert(std::move(entry));
}

void SessionTable::replace(std::size_t index, AgentSession session) {
  count(*(*entries_)[index], false);
  count(session, true);
  auto entry = order_.extract(urgencyOf(index));
  writable()[index] = std::make_shared<const AgentSession>(std::move(session));
  entry.key() = urgencyOf(index);
  order_.insert(std::move(entry));
}

void SessionTable::remove(std::size_t index) {
  count(*(*entries_)[index], false);
  order_.erase(urgencyOf(index));
  const auto at = static_cast<std::ptrdiff_t>(index);
  auto& entries = writable();
  entries.erase(entries.begin() + at);
  heard_.erase(heard_.begin() + at);
}

void SessionTable::clear() {
  entries_ = std::make_shared<SessionSnapshot::Entries>();
  heard_.clear();
  order_.clear();
  textBytes_ = 0;
  workingCount_ = 0;
  reportedWorking_ = {};
}

void SessionTable::makeRoom() {
  while (entries_->size() > limits_.sessions || textBytes_ > limits_.textBytes) {
    remove(*indexOf(order_.begin()->second));
    ++dropped_;
  }
}

}  // namespace vimbrel
