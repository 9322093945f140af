// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Linux/BusConnection.h"
#include "Platform/SleepAssertions.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// The name that desktops show beside what is held. KDE lets its users block an inhibitor by its exact name
/// and reason, so this one never changes.
inline constexpr const char* inhibitorName = "Vimbrel";

/// One thing that one service can hold for us, taken when it is wanted and the service is there. This class
/// keeps the order of things, alike for every service: take, read back, take again after the service's
/// restart and now and then after a refusal, give back; a subclass knows how each is said to its service. A
/// service that has not answered after 25 seconds counts as one that refuses, but is not asked again: its
/// answer is honoured however late it comes. What it granted is kept when it is still wanted, else given
/// back. Queue: the bus's; timers may be another's on the same thread.
class SleepInhibitor : public std::enable_shared_from_this<SleepInhibitor> {
 public:
  enum class ReadBack {
    confirmed,     ///< the service lists it
    unlisted,      ///< the service does not list it (yet)
    notSupported,  ///< the service offers no way to ask, or did not answer
  };

  virtual ~SleepInhibitor() = default;
  SleepInhibitor(const SleepInhibitor&) = delete;
  SleepInhibitor& operator=(const SleepInhibitor&) = delete;

  /// Begins to follow the service. Call once, before anything else.
  void follow(std::function<void()> changed);

  /// The service is not followed any more and `changed` not called again.
  void endFollowing();

  void want(const std::string& reason);
  void unwant();

  [[nodiscard]] bool isWanted() const { return wanted_; }
  /// The service is there and confirmed what it holds, or cannot be asked.
  [[nodiscard]] bool isHeld() const { return phase_ == Phase::held; }
  [[nodiscard]] bool isOffered() const { return !owner_.value_or("").empty(); }
  /// True when nothing is under way that is worth waiting for: no answer is awaited, or it is overdue, and it
  /// is known whether the service is there.
  [[nodiscard]] bool isSettled() const;
  /// Why the service did not do what was wanted, until it is asked again or answers after all.
  [[nodiscard]] const std::optional<BusError>& failure() const { return failure_; }
  [[nodiscard]] MechanismStatus status() const;
  [[nodiscard]] const std::string& mechanism() const { return mechanism_; }

 protected:
  /// `mechanism` is its name for people, `service` the bus name that offers it.
  SleepInhibitor(std::string mechanism, std::string service, std::shared_ptr<BusConnection> bus,
                 std::shared_ptr<TaskQueue> queue);

  /// Asks the service without a time-out, because what an answer grants after that could never be given back.
  /// An answer that is awaited goes to `answered`, after what it grants has been kept.
  virtual void take(const std::string& reason, unsigned round) = 0;
  /// False when the answer is about a service that is gone: there is nothing in it to keep.
  [[nodiscard]] bool awaits(unsigned round) const { return round == round_; }
  void answered(unsigned round, std::expected<void, BusError> result);
  virtual void readBack(std::function<void(ReadBack)> done) = 0;
  virtual void giveBack() = 0;
  /// The service's process ended. True when what is held survives that and only needs to be read back once
  /// the service is there again; otherwise it is gone and must be forgotten here.
  virtual bool outlivesService() { return false; }
  /// How long after taking it the service may take to list it.
  [[nodiscard]] virtual std::chrono::seconds listingDelay() const { return std::chrono::seconds{0}; }

  [[nodiscard]] BusConnection& bus() const { return *bus_; }
  [[nodiscard]] const std::string& service() const { return service_; }

 private:
  enum class Phase { idle, taking, readingBack, held, orphaned };

  void ownerChanged(const std::string& owner);
  void begin();
  void verify(unsigned round, bool mayWait);
  void finish(Phase phase, std::optional<BusError> failure);
  void announce() const;

  const std::string mechanism_;
  const std::string service_;
  const std::shared_ptr<BusConnection> bus_;
  const std::shared_ptr<TaskQueue> queue_;
  const Logger logger_{"power"};
  std::function<void()> changed_;
  std::optional<std::string> owner_;  // absent: not known yet
  bool wanted_ = false;
  bool retaking_ = false;  // the service went away while it held
  unsigned round_ = 0;     // answers to an earlier round are about a service that is gone
  Phase phase_ = Phase::idle;
  std::string reason_;
  std::string remark_;
  std::optional<BusError> failure_;
  Token nameWatch_;
  Token recheck_;
  Token patience_;
};

}  // namespace vimbrel
