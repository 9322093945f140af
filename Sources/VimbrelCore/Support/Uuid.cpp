// SPDX-License-Identifier: Apache-2.0
#include "Support/Uuid.h"

#include <sys/random.h>

#include <array>
#include <cstddef>
#include <random>
#include <string_view>

namespace vimbrel {
namespace {

constexpr std::size_t pooledUuids = 64;

/// Random bytes are fetched for many UUIDs at once: a system call for each would be felt when a history of
/// hundreds of thousands of events is read.
struct Pool {
  std::array<unsigned char, 16 * pooledUuids> bytes{};
  std::size_t used = bytes.size();
};

void refill(Pool& pool) {
  pool.used = 0;
  std::size_t filled = 0;
  while (filled < pool.bytes.size()) {
    const auto count = ::getrandom(pool.bytes.data() + filled, pool.bytes.size() - filled, 0);
    if (count <= 0) break;
    filled += static_cast<std::size_t>(count);
  }
  if (filled == pool.bytes.size()) return;
  std::random_device device;  // A kernel without getrandom.
  for (auto& byte : pool.bytes) byte = static_cast<unsigned char>(device());
}

}  // namespace

std::string randomUuid() {
  thread_local Pool pool;
  if (pool.used == pool.bytes.size()) refill(pool);
  unsigned char* bytes = pool.bytes.data() + pool.used;
  pool.used += 16;
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0FU) | 0x40U);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3FU) | 0x80U);
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < 16; ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
    text += digits[bytes[i] >> 4U];
    text += digits[bytes[i] & 15U];
  }
  return text;
}

}  // namespace vimbrel
