// SPDX-License-Identifier: Apache-2.0
#include "Power/IdleWakeAssertionController.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "CapturedLog.h"

namespace vimbrel {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Calls = std::vector<std::string>;

constexpr auto systemSleep = AssertionType::preventUserIdleSystemSleep;

/// Numbers its handles from 1 and writes down what it was asked.
class RecordingAssertions final : public SleepAssertions {
 public:
  std::expected<AssertionHandle, AssertionError> create(AssertionType type, std::string_view name) override {
    const bool system = type == systemSleep;
    calls.push_back(std::string(system ? "system " : "display ") + std::string(name));
    if (system ? systemFails : displayFails) {
      return std::unexpected(AssertionError{AssertionFault::unavailable, "no bus"});
    }
    held.insert(++last_);
    return last_;
  }
  void release(AssertionHandle handle) override {
    calls.push_back("release " + std::to_string(handle));
    held.erase(handle);
  }
  [[nodiscard]] std::vector<MechanismStatus> mechanisms() const override { return {}; }
  [[nodiscard]] bool isSimulated() const override { return true; }

  bool systemFails = false;
  bool displayFails = false;
  Calls calls;
  std::set<AssertionHandle> held;

 private:
  AssertionHandle last_ = 0;
};

struct Controller : testing::Test {
  std::shared_ptr<RecordingAssertions> platform = std::make_shared<RecordingAssertions>();
  CapturedLog log;
  IdleWakeAssertionController controller{platform};

  Calls takeCalls() { return std::exchange(platform->calls, {}); }
};

TEST_F(Controller, takesAssertionsAnewOnlyWhenTheDisplayWishChanges) {
  EXPECT_FALSE(controller.isActive());
  EXPECT_TRUE(controller.acquire("a 100% busy", false));
  EXPECT_TRUE(controller.acquire("b", false));
  EXPECT_THAT(takeCalls(), ElementsAre("system Vimbrel: a 100% busy"));
  EXPECT_TRUE(controller.acquire("b", true));
  EXPECT_THAT(takeCalls(), ElementsAre("release 1", "system Vimbrel: b", "display Vimbrel: b"));
  EXPECT_TRUE(controller.isDisplayActive());
  EXPECT_TRUE(controller.acquire("c", false));
  EXPECT_THAT(takeCalls(), ElementsAre("release 2", "release 3", "system Vimbrel: c"));
  EXPECT_FALSE(controller.isDisplayActive());
}

TEST_F(Controller, releasesOnceAndOnDestruction) {
  controller.release();
  controller.acquire("a", true);
  controller.release();
  controller.release();
  EXPECT_FALSE(controller.isActive());
  EXPECT_THAT(takeCalls(), ElementsAre("system Vimbrel: a", "display Vimbrel: a", "release 1", "release 2"));
  {
    IdleWakeAssertionController brief(platform);
    brief.acquire("b", true);
    EXPECT_EQ(platform->held.size(), 2u);
  }
  EXPECT_THAT(platform->held, IsEmpty());
}

TEST_F(Controller, reportsOnlyTheSystemAssertionAndRetriesTheRest) {
  platform->systemFails = true;
  EXPECT_FALSE(controller.acquire("a", true));
  EXPECT_FALSE(controller.isActive());
  EXPECT_THAT(takeCalls(), ElementsAre("system Vimbrel: a"));
  EXPECT_THAT(log.take(),
              ElementsAre("error power: Failed to acquire PreventUserIdleSystemSleep assertion: 2",
                          "debug power: The platform says: no bus"));

  platform->systemFails = false;
  platform->displayFails = true;
  EXPECT_TRUE(controller.acquire("a", true));
  EXPECT_TRUE(controller.isActive());
  takeCalls();
  EXPECT_TRUE(controller.acquire("a", true));
  EXPECT_THAT(takeCalls(), ElementsAre("release 1", "system Vimbrel: a", "display Vimbrel: a"));
  EXPECT_THAT(platform->held, ElementsAre(2u));
}

}  // namespace
}  // namespace vimbrel
