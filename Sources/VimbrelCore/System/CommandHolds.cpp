// SPDX-License-Identifier: Apache-2.0
#include "System/CommandHolds.h"

#include <utility>

namespace vimbrel {

Token CommandHolds::add(CommandHold hold) {
  if (holds_->size() >= maximumHolds) return Token{};
  const auto id = next_++;
  holds_->emplace(id, std::move(hold));
  changed_.send();
  return Token{[weak = std::weak_ptr(holds_), id, changed = changed_] {
    const auto holds = weak.lock();
    if (holds && holds->erase(id) > 0) changed.send();
  }};
}

std::vector<CommandHold> CommandHolds::active(Instant now) const {
  std::vector<CommandHold> active;
  for (const auto& [id, hold] : *holds_) {
    if (now < hold.until) active.push_back(hold);
  }
  return active;
}

void CommandHolds::willDecide(PolicyEvaluationContext& context) {
  for (const auto& [id, hold] : *holds_) {
    if (context.now >= hold.until) continue;
    if (context.commandHold.empty()) {
      context.commandHold = hold.command;
    } else {
      context.commandHold += ", " + hold.command;
    }
    context.commandHoldCoversLid |= hold.coversLid;
  }
}

}  // namespace vimbrel
