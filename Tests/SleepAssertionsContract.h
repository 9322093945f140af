// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Platform/SleepAssertions.h"

namespace vimbrel {

/// What the contract suite needs of one implementation, on a machine where it can hold both assertions.
struct SleepAssertionsSubject {
  std::shared_ptr<void> world;  ///< what the assertions stand on; outlives them
  std::shared_ptr<SleepAssertions> assertions;
};

/// The promises of the port, which every implementation keeps. Instantiate with a function that makes a
/// subject.
class SleepAssertionsContract : public testing::TestWithParam<std::function<SleepAssertionsSubject()>> {
 protected:
  void SetUp() override { subject = GetParam()(); }

  AssertionHandle take(AssertionType type) {
    const auto handle = subject.assertions->create(type, "Vimbrel: contract");
    EXPECT_TRUE(handle.has_value()) << (handle ? "" : handle.error().detail);
    return handle.value_or(0);
  }
  [[nodiscard]] std::vector<std::string> names() const {
    std::vector<std::string> result;
    for (const auto& status : subject.assertions->mechanisms()) result.push_back(status.name);
    return result;
  }
  [[nodiscard]] bool anythingGranted() const {
    const auto all = subject.assertions->mechanisms();
    return std::ranges::any_of(all,
                               [](const auto& status) { return status.state == MechanismState::granted; });
  }

  SleepAssertionsSubject subject;
  static constexpr auto systemSleep = AssertionType::preventUserIdleSystemSleep;
  static constexpr auto displaySleep = AssertionType::preventUserIdleDisplaySleep;
};

TEST_P(SleepAssertionsContract, holdsFromCreateToRelease) {
  EXPECT_FALSE(anythingGranted());
  for (const auto type : {systemSleep, displaySleep}) {
    const auto handle = take(type);
    EXPECT_NE(handle, 0u);
    EXPECT_TRUE(anythingGranted());
    subject.assertions->release(handle);
    EXPECT_FALSE(anythingGranted());
  }
}

TEST_P(SleepAssertionsContract, keepsHandlesApart) {
  const auto first = take(systemSleep);
  const auto second = take(systemSleep);
  const auto display = take(displaySleep);
  EXPECT_NE(first, second);
  EXPECT_NE(second, display);
  subject.assertions->release(first);
  subject.assertions->release(first);
  subject.assertions->release(0);
  subject.assertions->release(display + 1000);
  EXPECT_TRUE(anythingGranted());
  subject.assertions->release(second);
  EXPECT_TRUE(anythingGranted());
  subject.assertions->release(display);
  EXPECT_FALSE(anythingGranted());
}

TEST_P(SleepAssertionsContract, namesItsMechanismsAlikeWhateverIsHeld) {
  const auto before = names();
  EXPECT_FALSE(before.empty());
  const auto handle = take(displaySleep);
  EXPECT_EQ(names(), before);
  subject.assertions->release(handle);
  EXPECT_EQ(names(), before);
}

}  // namespace vimbrel
