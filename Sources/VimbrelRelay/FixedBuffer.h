// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstring>
#include <string_view>

namespace vimbrel {

/// A sink of fixed capacity. What does not fit is dropped and remembered, so that a writer asks once at the
/// end. In static storage its pages cost memory only once they are written.
template <std::size_t Capacity>
class FixedBuffer {
 public:
  void append(const char* bytes, std::size_t count) {
    if (count > Capacity - size_) {
      overflowed_ = true;
      return;
    }
    std::memcpy(bytes_ + size_, bytes, count);
    size_ += count;
  }
  [[nodiscard]] bool overflowed() const { return overflowed_; }
  [[nodiscard]] std::string_view text() const { return {bytes_, size_}; }

 private:
  std::size_t size_ = 0;
  bool overflowed_ = false;
  char bytes_[Capacity]{};
};

}  // namespace vimbrel
