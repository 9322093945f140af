// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vimbrel {

/// What the application takes up at the end of a night.
struct NightReading {
  std::size_t allocatedBytes = 0;  ///< on the heap of this process; 0 where the allocator does not tell
  std::size_t scheduled = 0;       ///< tasks and timers that wait
  std::size_t fileBytes = 0;       ///< of everything it keeps in files
  std::size_t descriptors = 0;     ///< open in this process
};

struct DaysPlan {
  int days = 7;
  int hoursAwake = 16;
  int hoursOfNight = 8;
};

struct DaysResult {
  std::vector<NightReading> nights;
  std::uint64_t tasks = 0;
  std::optional<std::string> violation;
};

/// Days of operation of the whole application on virtual time, all alike: hours of agents that come,
/// work, wait and go, a hook event every few seconds, sessions with names of their own, a battery that drains
/// and charges, lids, pauses, clients of the control socket and a log that is written, and a night in which
/// nothing happens. What grows from one night to the next is never given back.
[[nodiscard]] DaysResult liveDays(const DaysPlan& plan);

}  // namespace vimbrel
