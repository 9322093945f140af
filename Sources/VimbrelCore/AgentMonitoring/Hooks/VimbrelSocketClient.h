// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Domain/HookEvent.h"

namespace vimbrel {

/// Delivers one message to the hook socket: connect, write, wait briefly for the answer, close. A receiver
/// that is missing or stuck costs the caller its time-outs and never a signal, a log line or a retry. Any
/// thread; each call uses a socket of its own.
struct VimbrelSocketClient {
  std::string socketPath;  ///< at most `maximumSocketPathLength` bytes; a longer one fails without connecting

  /// True when the whole buffer was written. `timeoutMs` bounds the connect and the write, and then the wait
  /// for the answer, each on its own; 0 waits without a bound. The answer is not looked at.
  [[nodiscard]] bool send(std::string_view rawData, std::int64_t timeoutMs) const;

  /// Sends the event in its compact JSON form.
  [[nodiscard]] bool send(const HookEvent& event, std::int64_t timeoutMs) const;
};

}  // namespace vimbrel
