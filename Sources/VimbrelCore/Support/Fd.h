// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <unistd.h>

#include <utility>

namespace vimbrel {

/// Owns one file descriptor and closes it. -1 means none.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int descriptor) : descriptor_(descriptor) {}
  Fd(Fd&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
  Fd& operator=(Fd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.descriptor_, -1));
    return *this;
  }
  ~Fd() { reset(); }

  [[nodiscard]] int get() const { return descriptor_; }
  [[nodiscard]] int release() { return std::exchange(descriptor_, -1); }
  explicit operator bool() const { return descriptor_ >= 0; }
  void reset(int descriptor = -1) {
    const int old = std::exchange(descriptor_, descriptor);
    if (old >= 0) ::close(old);
  }

 private:
  int descriptor_ = -1;
};

}  // namespace vimbrel
