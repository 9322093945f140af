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
/// restart and now and then after a refusal, give back; a subclass knows how each is said to its service. An
/// answer that comes late is still honoured: what it granted is kept when it is still wanted, else given
/// back. Queue: the bus's.
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
  /// True when nothing is under way: no answer is awaited, and it is known whether the service is there.
  [[nodiscard]] bool isSettled() const;
  /// Why the service did not do what was wanted, until it is asked again.
  [[nodiscard]] const std::optional<BusError>& failure() const { return failure_; }
  [[nodiscard]] MechanismStatus status() const;
  [[nodiscard]] const std::string& mechanism() const { return mechanism_; }

 protected:
  using Taken = std::function<void(std::expected<void, BusError>)>;
  /// A service may be busy; what it grants late still counts, so it is waited for long.
  static constexpr std::chrono::milliseconds takeTimeout{25000};

  /// `mechanism` is its name for people, `service` the bus name that offers it.
  SleepInhibitor(std::string mechanism, std::string service, std::shared_ptr<BusConnection> bus,
                 std::shared_ptr<TaskQueue> queue);

  virtual void take(const std::string& reason, Taken done) = 0;
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
  void answered(unsigned round, std::expected<void, BusError> result);
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
};

}  // namespace vimbrel
