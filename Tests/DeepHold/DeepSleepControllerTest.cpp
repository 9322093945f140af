// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepSleepController.h"

#include <gtest/gtest.h>

#include <fstream>
#include <vector>

#include "LeaseStoreWorld.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

/// A controller in virtual time and a helper that answers `answer`.
struct World {
  VirtualTime time{instantFromReferenceSeconds(0)};
  std::optional<HelperResponse> answer = HelperResponse{true, std::nullopt, std::nullopt};
  std::vector<HelperRequest> requests;
  std::vector<double> renewedAt;
  TemporaryDirectory directory;
  DeepSleepController controller{
      time, directory.file("helper.sock"), [this](const HelperRequest& request) {
        if (request.command == HelperCommand::renew) {
          renewedAt.push_back(std::chrono::duration<double>(time.monotonic()).count());
        }
        requests.push_back(request);
        return answer;
      }};

  bool acquire(double ttl) {
    std::optional<bool> result;
    controller.acquire(ttl, [&](bool acquired) { result = acquired; });
    time.runReady();
    return result.value();
  }
  void release() {
    controller.release({});
    time.runReady();
  }
  DeepSleepStatus status() {
    std::optional<DeepSleepStatus> result;
    controller.status([&](DeepSleepStatus status) { result = std::move(status); });
    time.runReady();
    return result.value();
  }
};

TEST(DeepSleepController, keepsOneLeaseIdAndRenewsItOnlyWhenAcquiresStop) {
  World world;
  const LogCapture quiet;
  ASSERT_TRUE(world.acquire(60));
  const auto id = world.requests.at(0).leaseId.value();
  EXPECT_EQ(id.size(), 36U);
  world.time.advance(14s);
  ASSERT_TRUE(world.acquire(60));
  world.time.advance(46s);
  EXPECT_EQ(world.renewedAt, (std::vector<double>{29, 44, 59}));
  for (const auto& request : world.requests) EXPECT_EQ(request.leaseId, id);

  world.release();
  world.release();
  world.time.advance(60s);
  ASSERT_EQ(world.requests.size(), 6U);
  EXPECT_EQ(world.requests.back(), (HelperRequest{HelperCommand::release, id, std::nullopt}));
  world.acquire(60);
  EXPECT_NE(world.requests.back().leaseId, id);
}

TEST(DeepSleepController, renewsNoFasterThanEveryFiveSeconds) {
  World world;
  world.acquire(8);
  world.time.advance(16s);
  EXPECT_EQ(world.renewedAt, (std::vector<double>{5, 10, 15}));
}

TEST(DeepSleepController, keepsItsLeaseIdAndItsTimerThroughRefusals) {
  World world;
  const LogCapture quiet;
  world.answer.reset();
  EXPECT_FALSE(world.acquire(60));
  world.time.advance(60s);
  EXPECT_TRUE(world.renewedAt.empty());
  world.answer = HelperResponse{true, std::nullopt, std::nullopt};
  EXPECT_TRUE(world.acquire(60));
  world.answer->ok = false;
  EXPECT_FALSE(world.acquire(60));
  world.time.advance(15s);
  EXPECT_EQ(world.renewedAt.size(), 1U);
  EXPECT_EQ(world.requests.at(0).leaseId, world.requests.at(2).leaseId);
  world.answer.reset();
  world.release();
  world.answer = HelperResponse{true, std::nullopt, std::nullopt};
  EXPECT_TRUE(world.acquire(60));
  EXPECT_NE(world.requests.back().leaseId, world.requests.at(0).leaseId) << "it is given up, heard or not";
}

TEST(DeepSleepController, stopsRenewingWhenItIsTornDown) {
  VirtualTime time{instantFromReferenceSeconds(0)};
  int requests = 0;
  {
    DeepSleepController controller(time, "unused", [&](const HelperRequest&) {
      ++requests;
      return HelperResponse{true, std::nullopt, std::nullopt};
    });
    controller.acquire(60, {});
    time.runReady();
    controller.acquire(60, {});
  }
  time.advance(60s);
  EXPECT_EQ(requests, 2);
}

TEST(DeepSleepController, makesUpAStatusWhenTheHelperIsSilent) {
  World world;
  world.answer->status = DeepSleepStatus{true, true, "X", world.time.now(), false, true};
  EXPECT_EQ(world.status(), world.answer->status);
  world.answer.reset();
  EXPECT_EQ(world.status(), DeepSleepStatus{});
  std::ofstream(world.directory.file("helper.sock")) << "stale";
  EXPECT_EQ(world.status(), (DeepSleepStatus{true, false, {}, {}, {}, false}));
}

}  // namespace
}  // namespace vimbrel
