// SPDX-License-Identifier: Apache-2.0
#include "Run/FallbackAssertions.h"

#include <algorithm>
#include <utility>

namespace vimbrel {

FallbackAssertions::FallbackAssertions(std::shared_ptr<SleepAssertions> real,
                                       std::shared_ptr<SleepAssertions> simulated)
    : real_(std::move(real)), simulated_(std::move(simulated)) {
  real_->onMechanismsChanged = [this] {
    takeForReal();
    if (onMechanismsChanged) onMechanismsChanged();
  };
}

FallbackAssertions::~FallbackAssertions() { real_->onMechanismsChanged = nullptr; }

bool FallbackAssertions::isSimulated() const {
  return std::ranges::all_of(real_->mechanisms(), [](const MechanismStatus& mechanism) {
    return mechanism.state == MechanismState::missing;
  });
}

std::expected<AssertionHandle, AssertionError> FallbackAssertions::create(AssertionType type,
                                                                          std::string_view name) {
  auto taken = real_->create(type, name);
  const bool isReal = taken.has_value();
  if (!isReal) {
    if (!isSimulated()) return taken;
    taken = simulated_->create(type, name);
    if (!taken) return taken;
  }
  if (++lastHandle_ == 0) ++lastHandle_;
  held_.emplace(lastHandle_, Held{type, std::string(name), isReal, *taken});
  return lastHandle_;
}

void FallbackAssertions::release(AssertionHandle handle) {
  const auto found = held_.find(handle);
  if (found == held_.end()) return;
  const auto held = found->second;
  held_.erase(found);
  (held.isReal ? real_ : simulated_)->release(held.handle);
}

std::vector<MechanismStatus> FallbackAssertions::mechanisms() const {
  auto result = real_->mechanisms();
  if (!isSimulated()) return result;
  for (auto& mechanism : simulated_->mechanisms()) result.push_back(std::move(mechanism));
  return result;
}

void FallbackAssertions::takeForReal() {
  if (isSimulated()) return;
  for (auto& [handle, held] : held_) {
    if (held.isReal) continue;
    const auto taken = real_->create(held.type, held.name);
    if (!taken) continue;  // Tried again when a mechanism changes.
    simulated_->release(held.handle);
    held.isReal = true;
    held.handle = *taken;
  }
}

}  // namespace vimbrel
