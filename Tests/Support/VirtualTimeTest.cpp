// SPDX-License-Identifier: Apache-2.0
#include "Support/VirtualTime.h"

#include <gtest/gtest.h>

#include <string>

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

TEST(VirtualTime, runsTasksAndTimersInTheOrderOfTheirTimes) {
  VirtualTime time(instantFromUnixSeconds(1000));
  auto queue = time.makeQueue("test", QueueHome::background);
  std::string order;
  const auto late = queue->after(2s, [&] { order += 'c'; });
  const auto early = queue->after(1s, [&] {
    order += 'a';
    queue->post([&] { order += 'b'; });
  });
  auto cancelled = queue->after(1s, [&] { order += 'x'; });
  cancelled.reset();
  time.advance(3s);
  EXPECT_EQ(order, "abc");
  EXPECT_EQ(unixSeconds(time.now()), 1003);
}

TEST(VirtualTime, repeatsUntilTheTokenIsDroppedEvenFromItsOwnTask) {
  VirtualTime time(instantFromUnixSeconds(0));
  auto queue = time.mainQueue();
  int count = 0;
  Token token;
  token = queue->every(1s, 1s, TimerPrecision::shared, [&] {
    EXPECT_TRUE(queue->isCurrent());
    if (++count == 3) token.reset();
  });
  time.advance(10s);
  EXPECT_EQ(count, 3);
}

TEST(VirtualTime, aJumpOfTheWallClockMovesNoTimer) {
  VirtualTime time(instantFromUnixSeconds(0));
  int fired = 0;
  const auto token = time.mainQueue()->after(10s, [&] { ++fired; });
  time.jumpWallClock(Seconds{3600});
  time.advance(9s);
  EXPECT_EQ(fired, 0);
  time.advance(1s);
  EXPECT_EQ(fired, 1);
  EXPECT_EQ(unixSeconds(time.now()), 3610);
}

}  // namespace
}  // namespace vimbrel
