// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <string>

#include "Platform/SleepAssertions.h"

namespace vimbrel {

/// The real assertions, and simulated ones for as long as this machine offers no real mechanism at all, so
/// that the application can be seen at work everywhere. What was simulated is taken for real as soon as a
/// mechanism appears. A mechanism that is there but refuses is not replaced: it is reported.
class FallbackAssertions final : public SleepAssertions {
 public:
  FallbackAssertions(std::shared_ptr<SleepAssertions> real, std::shared_ptr<SleepAssertions> simulated);
  ~FallbackAssertions() override;
  FallbackAssertions(const FallbackAssertions&) = delete;
  FallbackAssertions& operator=(const FallbackAssertions&) = delete;

  [[nodiscard]] std::expected<AssertionHandle, AssertionError> create(AssertionType type,
                                                                      std::string_view name) override;
  void release(AssertionHandle handle) override;
  /// The real mechanisms, and the simulated ones while they stand in.
  [[nodiscard]] std::vector<MechanismStatus> mechanisms() const override;
  [[nodiscard]] bool isSimulated() const override;

 private:
  struct Held {
    AssertionType type;
    std::string name;
    bool isReal;
    AssertionHandle handle;
  };
  void takeForReal();

  const std::shared_ptr<SleepAssertions> real_;
  const std::shared_ptr<SleepAssertions> simulated_;
  std::map<AssertionHandle, Held> held_;
  AssertionHandle lastHandle_ = 0;
};

}  // namespace vimbrel
