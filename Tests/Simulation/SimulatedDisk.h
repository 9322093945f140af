// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/resource.h>

#include <optional>

namespace vimbrel {

/// The disk under the application and the helper, which fills up and gets room again. That it is full is felt
/// by this whole process, so only while what is simulated runs.
class SimulatedDisk {
 public:
  /// While it lives, no file of this process can grow: what a full disk does to writes.
  class Effect {
   public:
    explicit Effect(bool isFull);
    ~Effect();
    Effect(const Effect&) = delete;
    Effect& operator=(const Effect&) = delete;

   private:
    std::optional<rlimit> before_;
    void (*handler_)(int) = nullptr;
  };

  void fill() { isFull_ = true; }
  void free() { isFull_ = false; }
  [[nodiscard]] bool isFull() const { return isFull_; }
  /// Nothing while there is room.
  [[nodiscard]] Effect inEffect() const { return Effect(isFull_); }

 private:
  bool isFull_ = false;
};

}  // namespace vimbrel
