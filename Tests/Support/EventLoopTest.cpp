// SPDX-License-Identifier: Apache-2.0
#include "Support/EventLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Support/Fd.h"
#include "Support/TryThread.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

class EventLoopTest : public testing::TestWithParam<QueueHome> {};

TEST_P(EventLoopTest, runsOneTaskAtATimeInOrderFromManyThreads) {
  EventLoop loop;
  auto queue = loop.makeQueue("test", GetParam());
  std::atomic<int> inside{0};
  std::array<int, 4> last{-1, -1, -1, -1};
  int total = 0;
  std::vector<std::thread> posters;
  for (int& mine : last) {
    posters.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        queue->post([&, i] {
          EXPECT_EQ(inside.fetch_add(1), 0);
          EXPECT_TRUE(queue->isCurrent());
          EXPECT_EQ(std::exchange(mine, i), i - 1);
          inside.fetch_sub(1);
          if (++total == 2000) loop.stop();
        });
      }
    });
  }
  loop.run();
  for (auto& thread : posters) thread.join();
  EXPECT_EQ(total, 2000);
}

TEST_P(EventLoopTest, watchesADescriptorUntilTheTokenIsDropped) {
  EventLoop loop;
  auto queue = loop.makeQueue("test", GetParam());
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const Fd reading(ends[0]);
  const Fd writing(ends[1]);
  std::string received;
  Token watch;
  const auto say = [&](char byte) { ASSERT_EQ(write(writing.get(), &byte, 1), 1); };
  queue->post([&] {
    watch = queue->watchReadable(reading.get(), [&] {
      char byte = 0;
      while (read(reading.get(), &byte, 1) == 1) received += byte;
      if (received.size() < 3) return say('b');
      watch.reset();
      say('c');
      queue->post([&] { loop.stop(); });
    });
    say('a');
  });
  loop.run();
  EXPECT_EQ(received, "abb");
}

TEST_P(EventLoopTest, firesTimersAndForgetsCancelledOnes) {
  EventLoop loop;
  auto queue = loop.makeQueue("test", GetParam());
  int repeats = 0;
  bool cancelledFired = false;
  auto cancelled = queue->after(5ms, [&] { cancelledFired = true; });
  cancelled.reset();
  Token repeating = queue->every(1ms, 2ms, TimerPrecision::exact, [&] {
    if (++repeats == 5) loop.stop();
  });
  loop.run();
  EXPECT_GE(repeats, 5);
  EXPECT_FALSE(cancelledFired);
}

TEST_P(EventLoopTest, aTaskThatNobodyRunsDoesNotKeepWhatOwnsItsQueue) {
  std::weak_ptr<TaskQueue> left;
  {
    EventLoop loop;
    const auto queue = loop.makeQueue("q", GetParam());
    left = queue;
    queue->post([owner = std::make_shared<std::shared_ptr<TaskQueue>>(queue)] {});
  }
  EXPECT_TRUE(left.expired());
}

TEST_P(EventLoopTest, aQueueMayOutliveItsLoop) {
  std::shared_ptr<TaskQueue> queue;
  Token token;
  {
    EventLoop loop;
    queue = loop.makeQueue("test", GetParam());
    token = queue->after(1h, [] { ADD_FAILURE(); });
  }
  queue->post([] { ADD_FAILURE(); });
  token.reset();
}

INSTANTIATE_TEST_SUITE_P(Homes, EventLoopTest, testing::Values(QueueHome::mainThread, QueueHome::background));

TEST(EventLoopThreads, leaveSignalsToTheMainThreadAndKeepTheirOwnFaults) {
  const auto takes = [](int signal) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 0;
  };
  const auto takesOnlyFaults = [&] { return !takes(SIGTERM) && !takes(SIGHUP) && takes(SIGSEGV); };
  EventLoop loop;
  const auto queue = loop.makeQueue("test", QueueHome::background);
  std::atomic<int> right{0};
  queue->post([&] {
    right += takesOnlyFaults();
    loop.stop();
  });
  loop.run();
  auto thread = tryThread([&] { right += takesOnlyFaults(); });
  ASSERT_TRUE(thread);
  thread->join();
  EXPECT_EQ(right, 2);
  EXPECT_TRUE(takes(SIGTERM));
}

}  // namespace
}  // namespace vimbrel
