// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace vimbrel {

/// One exchange with the hook socket: connect, write `bytes` with one call, wait for the answer, close. True
/// when everything was written. Needs nothing but system calls, so that the relay can be built without the
/// C++ library; everything else uses `VimbrelSocketClient`, whose promises these are.
[[nodiscard]] bool exchangeWithHookSocket(std::string_view socketPath, const void* bytes, std::size_t count,
                                          std::int64_t timeoutMs) noexcept;

}  // namespace vimbrel
