// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Domain/HookEvent.h"

/// Whatever arrives on the hook socket: an event that decodes has a session and survives being written and
/// read again.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const auto now = instantFromUnixSeconds(1'700'000'000);
  const auto event = HookEvent::parse({reinterpret_cast<const char*>(data), size}, now);
  if (!event) return 0;
  if (event->sessionId.empty()) std::abort();
  const auto again = HookEvent::parse(event->toJSONData(), now);
  if (!again || *again != *event) std::abort();
  return 0;
}
