// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace vimbrel {

/// What an assertion keeps from happening while the user is idle.
enum class AssertionType : std::uint8_t { preventUserIdleSystemSleep, preventUserIdleDisplaySleep };

/// What stopped an assertion. `denied` will not heal by retrying; the others may.
enum class AssertionFault : std::int32_t { denied = 1, unavailable = 2, timedOut = 3 };

struct AssertionError {
  AssertionFault fault = AssertionFault::unavailable;
  std::string detail;  ///< for people: which mechanism refused, and what it said
};

/// Never 0 for a held assertion.
using AssertionHandle = std::uint32_t;

enum class MechanismState : std::uint8_t {
  available,  ///< its service answers; not held now
  granted,    ///< held, and confirmed by reading it back
  refused,    ///< its service answers and says no
  missing,    ///< nobody offers it on this machine
};

/// One way of keeping this desktop awake ("logind", "gnome-session", …) and how it stands now.
struct MechanismStatus {
  std::string name;
  MechanismState state = MechanismState::missing;
  std::string detail;  ///< why, and what to do about it; empty when there is nothing to say
  bool operator==(const MechanismStatus&) const = default;
};

/// Keeps the machine from idling to sleep. Queue: the main queue; may block its caller for up to 500 ms.
class SleepAssertions {
 public:
  virtual ~SleepAssertions() = default;

  /// Takes one assertion that the desktop shows to the user as `name` (UTF-8). It holds when at least one
  /// mechanism that works on this desktop granted it. The handle stays valid while the service behind it
  /// restarts.
  [[nodiscard]] virtual std::expected<AssertionHandle, AssertionError> create(AssertionType type,
                                                                              std::string_view name) = 0;

  /// Gives the assertion back. Unknown handles are ignored.
  virtual void release(AssertionHandle handle) = 0;

  /// Every mechanism that is known here, in a fixed order.
  [[nodiscard]] virtual std::vector<MechanismStatus> mechanisms() const = 0;

  /// True when nothing of a real machine is held.
  [[nodiscard]] virtual bool isSimulated() const = 0;

  /// Called on the main queue when a mechanism's state changes by itself (its service went away or came
  /// back).
  std::function<void()> onMechanismsChanged;
};

}  // namespace vimbrel
