// SPDX-License-Identifier: Apache-2.0
// Any bytes as the file that describes a simulated machine.
#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "Platform/Simulated/SimulatedWorld.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const auto document = parseSimulatedWorld({reinterpret_cast<const char*>(data), size});
  if (!document) return document.error().empty() ? (std::abort(), 1) : 0;
  const auto& world = document->world;
  if (!std::ranges::is_sorted(world.processes, {}, &ProcessEntry::pid)) std::abort();
  if (world.power && world.power->batteryPercent.value_or(0) > 100) std::abort();
  return 0;
}
