// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/SleepInhibitor.h"

#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {
constexpr std::chrono::seconds retryInterval{30};
// A service may be busy. Only what is shown depends on it.
constexpr std::chrono::seconds patience{25};
}  // namespace

SleepInhibitor::SleepInhibitor(std::string mechanism, std::string service, std::shared_ptr<BusConnection> bus,
                               std::shared_ptr<TaskQueue> queue)
    : mechanism_(std::move(mechanism)),
      service_(std::move(service)),
      bus_(std::move(bus)),
      queue_(std::move(queue)) {}

void SleepInhibitor::follow(std::function<void()> changed) {
  changed_ = std::move(changed);
  nameWatch_ = bus_->watchName(service_, [weak = weak_from_this()](const std::string& owner) {
    if (const auto self = weak.lock()) self->ownerChanged(owner);
  });
  owner_ = bus_->ownerOf(service_);
}

void SleepInhibitor::endFollowing() {
  nameWatch_.reset();
  changed_ = nullptr;
}

void SleepInhibitor::want(const std::string& reason) {
  if (std::exchange(wanted_, true)) return;
  reason_ = reason;
  // A refusal stands until it is time to ask again: whoever wants it every second must not ask every second.
  if (phase_ == Phase::idle && isOffered() && !failure_) begin();
}

void SleepInhibitor::unwant() {
  if (!std::exchange(wanted_, false)) return;
  remark_.clear();
  if (!failure_) recheck_.reset();
  retaking_ = false;
  // While an answer is awaited there is nothing to give back yet; what it grants is given back on arrival.
  if (phase_ == Phase::taking || phase_ == Phase::idle) return;
  giveBack();
  ++round_;
  phase_ = Phase::idle;
}

bool SleepInhibitor::isSettled() const {
  return owner_.has_value() && (phase_ != Phase::taking || failure_) && phase_ != Phase::readingBack;
}

MechanismStatus SleepInhibitor::status() const {
  if (!isOffered()) {
    const auto why = bus_->isConnected() ? sentence("nobody offers %1", {service_}) : bus_->failure();
    return {mechanism_, MechanismState::missing, why};
  }
  if (failure_) return {mechanism_, MechanismState::refused, failure_->message};
  if (phase_ == Phase::held) return {mechanism_, MechanismState::granted, remark_};
  return {mechanism_, MechanismState::available, remark_};
}

void SleepInhibitor::ownerChanged(const std::string& owner) {
  const bool isFirst = !owner_.has_value();
  if (owner_ == owner) return;
  owner_ = owner;
  if (owner.empty()) {
    const bool held = phase_ == Phase::held || phase_ == Phase::readingBack;
    ++round_;
    recheck_.reset();
    patience_.reset();
    failure_.reset();
    retaking_ = retaking_ || (wanted_ && held);
    phase_ = held && outlivesService() ? Phase::orphaned : Phase::idle;
    if (held) logger_.error("%s: its service went away while it held an assertion", mechanism_.c_str());
  } else if (phase_ == Phase::orphaned) {
    phase_ = Phase::readingBack;
    verify(round_, false);
  } else if (wanted_ && phase_ == Phase::idle) {
    begin();
  }
  if (!isFirst || !owner.empty()) announce();
}

void SleepInhibitor::begin() {
  phase_ = Phase::taking;
  patience_ = queue_->after(patience, [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self || self->phase_ != Phase::taking) return;
    self->failure_ = BusError{"org.freedesktop.DBus.Error.Timeout", sentence("no answer in time")};
    self->announce();
  });
  take(reason_, ++round_);
}

void SleepInhibitor::answered(unsigned round, std::expected<void, BusError> result) {
  if (!awaits(round)) return;
  patience_.reset();
  failure_.reset();
  if (!result) return finish(Phase::idle, std::move(result.error()));
  if (!wanted_) {
    giveBack();
    return finish(Phase::idle, std::nullopt);
  }
  phase_ = Phase::readingBack;
  verify(round, true);
}

void SleepInhibitor::verify(unsigned round, bool mayWait) {
  readBack([weak = weak_from_this(), round, mayWait](ReadBack answer) {
    const auto self = weak.lock();
    if (!self || round != self->round_) return;
    self->remark_.clear();
    if (answer == ReadBack::confirmed) return self->finish(Phase::held, std::nullopt);
    if (answer == ReadBack::notSupported) {
      self->remark_ = sentence("held, but the service could not be asked to confirm it");
      return self->finish(Phase::held, std::nullopt);
    }
    if (mayWait && self->listingDelay().count() > 0) {
      self->remark_ = sentence("granted; the service lists it only after a few seconds");
      self->recheck_ = self->queue_->after(self->listingDelay(), [weak, round] {
        if (const auto later = weak.lock()) later->verify(round, false);
      });
      return self->finish(Phase::held, std::nullopt);
    }
    self->giveBack();
    if (self->retaking_ && self->phase_ == Phase::readingBack) return self->begin();
    self->finish(
        Phase::idle,
        BusError{"Unlisted", sentence("the service granted it but does not list it: it has no effect")});
  });
}

void SleepInhibitor::finish(Phase phase, std::optional<BusError> failure) {
  phase_ = phase;
  failure_ = std::move(failure);
  if (phase == Phase::held && std::exchange(retaking_, false)) {
    logger_.info("%s: its service is back, the assertion is held again", mechanism_.c_str());
  }
  if (failure_) {
    // What refuses now may not later: a session becomes active, polkit itself was being restarted.
    recheck_ = queue_->after(retryInterval, [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->failure_.reset();
      if (self->wanted_ && self->phase_ == Phase::idle) {
        self->begin();
      } else {
        self->announce();
      }
    });
  }
  announce();
}

void SleepInhibitor::announce() const {
  if (changed_) changed_();
}

}  // namespace vimbrel
