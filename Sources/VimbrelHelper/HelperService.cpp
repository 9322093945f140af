// SPDX-License-Identifier: Apache-2.0
#include "HelperService.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>

#include "Support/AtomicFile.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

constexpr const char* clockSuffix = ".clock";

HelperResponse done() { return {true, std::nullopt, std::nullopt}; }
HelperResponse refused(std::string why) { return {false, std::nullopt, std::move(why)}; }

/// Why the lease that a request asks for cannot be given; empty when it can.
std::string faultOf(const HelperRequest& request) {
  if (!request.leaseId) return "\"leaseId\" is missing";
  if (!request.ttlSeconds) return "\"ttlSeconds\" is missing";
  if (!std::isfinite(*request.ttlSeconds)) return "\"ttlSeconds\" is not a finite number";
  if (*request.ttlSeconds <= 0) return "\"ttlSeconds\" is not positive";
  if (*request.ttlSeconds > maximumLeaseSeconds) return "\"ttlSeconds\" is above one hour";
  return {};
}

/// Why a saved lease cannot be one that this helper granted; empty when it can.
std::string faultOf(const DeepSleepStatus& saved, Instant now) {
  if (!saved.leaseExpiresAt || !saved.activeLeaseId) return "a lease without an id or an end";
  if (!(*saved.leaseExpiresAt <= now + Seconds{maximumLeaseSeconds})) return "a lease of more than an hour";
  if (saved.activeLeaseId->size() > maximumLeaseIdBytes) return "a lease id that is too long";
  if (saved.originalSleepDisabledState.value_or(false) && !saved.currentSystemSleepDisabled) {
    return "a setting from before that is not there";
  }
  return {};
}

}  // namespace

// Process durability: the inhibitor does not survive the machine, so neither must its record, and the disk is
// left alone once a second.
HelperService::HelperService(HelperServiceParts parts, const Clock& clock)
    : parts_(std::move(parts)),
      clock_(clock),
      store_(parts_.power, parts_.stateFile, [this] { return clock_.now(); }, Durability::process) {}

void HelperService::start() {
  examineStateFile();
  takeUpLease();
}

void HelperService::examineStateFile() const {
  const auto text = readFile(parts_.stateFile, 64 * 1024);
  if (!text && text.error().code != ENOENT) {
    logger_.error("Starting without a lease: %s", text.error().text().c_str());
  }
  if (text) {
    if (const auto record = decodeDeepHoldStateRecord(*text); !record) {
      logger_.error("Starting without a lease: %s is damaged (%s)", parts_.stateFile.c_str(),
                    record.error().text.c_str());
    }
  }
  const auto probe = parts_.stateFile + ".probe";
  if (const auto written = replaceFile(probe, ""); !written) {
    logger_.error("A lease will not survive a restart of the helper: %s", written.error().text().c_str());
  }
  ::unlink(probe.c_str());
}

void HelperService::takeUpLease() {
  const auto saved = store_.status();
  if (!saved.isDeepHoldActive) return;
  if (const auto fault = faultOf(saved, clock_.now()); !fault.empty()) {
    logger_.error("Letting go of the saved state: %s", fault.c_str());
    store_.release(std::nullopt);
    return;
  }
  if (store_.checkWatchdog()) return;
  const auto setBack = clockSetBackBy();
  if (*saved.leaseExpiresAt - clock_.now() <= std::chrono::duration_cast<Seconds>(setBack)) {
    logger_.error("The clock was set back; the saved lease has had its time and is released");
    store_.release(std::nullopt);
    return;
  }
  if (ensureSettingHolds()) {
    logger_.info("Took the deep hold up again for the saved lease, which runs until %s",
                 formatIso8601(*saved.leaseExpiresAt).c_str());
  }
  watchLease();
  if (setBack > 0s) {
    deadline_ -= setBack;
    expiryTimer_ = parts_.queue->after(deadline_ - clock_.monotonic() + 1ms, [this] { checkLease(); });
  }
}

void HelperService::noteClock() {
  const double apart = unixSeconds(clock_.now()) - std::chrono::duration<double>(clock_.monotonic()).count();
  // Clocks are disciplined by milliseconds all the time, and leases renewed once a second.
  if (notedClock_ && std::abs(*notedClock_ - apart) < 1) return;
  // On a full disk the next renewal tries again.
  if (replaceFile(parts_.stateFile + clockSuffix, std::to_string(apart))) notedClock_ = apart;
}

nanoseconds HelperService::clockSetBackBy() const {
  const auto text = readFile(parts_.stateFile + clockSuffix, 64);
  if (!text) return 0s;
  const double noted = std::strtod(text->c_str(), nullptr);
  const double apart = unixSeconds(clock_.now()) - std::chrono::duration<double>(clock_.monotonic()).count();
  // A restarted machine and a suspended one are further apart, which ends a lease early by itself.
  const double back = noted - apart;
  if (!(back >= 1)) return 0s;
  return std::chrono::duration_cast<nanoseconds>(Seconds{std::min(back, maximumLeaseSeconds)});
}

HelperResponse HelperService::answer(const HelperRequest& request, uid_t peer) {
  if (request.leaseId && request.leaseId->size() > maximumLeaseIdBytes) {
    return refused("\"leaseId\" is longer than 256 bytes");
  }
  switch (request.command) {
    case HelperCommand::status:
      return {true, store_.status(), std::nullopt};
    case HelperCommand::acquire:
      if (auto fault = faultOf(request); !fault.empty()) return refused(std::move(fault));
      return acquire(*request.leaseId, *request.ttlSeconds);
    case HelperCommand::renew:
      if (auto fault = faultOf(request); !fault.empty()) return refused(std::move(fault));
      if (!store_.renew(*request.leaseId, *request.ttlSeconds)) return refused("there is no lease to renew");
      noteClock();
      watchLease();
      return done();
    case HelperCommand::release:
      if (!store_.release(request.leaseId)) return refused("another lease is active");
      watchLease();
      return done();
    case HelperCommand::uninstall:
      if (peer != 0) return refused("only root may uninstall the helper");
      return uninstall();
  }
  return refused("unknown command");
}

HelperResponse HelperService::acquire(const std::string& leaseId, double ttlSeconds) {
  store_.acquire(leaseId, ttlSeconds);
  noteClock();
  watchLease();
  if (ensureSettingHolds()) return done();
  // The lease stands, and the watchdog goes on trying for as long as it runs.
  const auto why = parts_.whyPowerFailed ? parts_.whyPowerFailed() : std::string{};
  return refused("the system does not let the helper disable sleep" + (why.empty() ? "" : ": " + why));
}

HelperResponse HelperService::uninstall() {
  stop();
  ::unlink(parts_.stateFile.c_str());
  ::unlink((parts_.stateFile + clockSuffix).c_str());
  if (parts_.onUninstall) parts_.queue->post([stop = parts_.onUninstall] { stop(); });
  return done();
}

bool HelperService::ensureSettingHolds() {
  const auto status = store_.status();
  if (!status.isDeepHoldActive || status.currentSystemSleepDisabled) return true;
  // Where sleep was disabled before the lease, the store will not enable it at the end.
  if (status.originalSleepDisabledState.value_or(false)) return false;
  return parts_.power->writeSleepDisabled(true);
}

/// Sets the timers for the lease as it is now.
void HelperService::watchLease() {
  const auto status = store_.status();
  if (!status.isDeepHoldActive || !status.leaseExpiresAt) {
    expiryTimer_.reset();
    watchdogTimer_.reset();
    return;
  }
  const auto left = std::chrono::duration_cast<nanoseconds>(
      Seconds{std::clamp((*status.leaseExpiresAt - clock_.now()).count(), 0.0, maximumLeaseSeconds)});
  deadline_ = clock_.monotonic() + left;
  // A millisecond later than the expiry, because a timer may be early by a rounding.
  expiryTimer_ = parts_.queue->after(left + 1ms, [this] { checkLease(); });
  if (!watchdogTimer_) {
    watchdogTimer_ = parts_.queue->every(5s, 5s, TimerPrecision::shared, [this] { checkLease(); });
  }
}

void HelperService::checkLease() {
  const bool released = store_.checkWatchdog();
  if (!released && clock_.monotonic() > deadline_ && store_.status().isDeepHoldActive) {
    logger_.error("The clock was set back; the lease has had its time and is released");
    store_.release(std::nullopt);
  }
  if (!store_.status().isDeepHoldActive) {
    expiryTimer_.reset();
    watchdogTimer_.reset();
  } else {
    (void)ensureSettingHolds();
  }
}

void HelperService::stop() {
  expiryTimer_.reset();
  watchdogTimer_.reset();
  store_.release(std::nullopt);
}

}  // namespace vimbrel
