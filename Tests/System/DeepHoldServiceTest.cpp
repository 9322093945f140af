// SPDX-License-Identifier: Apache-2.0
#include "System/DeepHoldService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CapturedLog.h"
#include "DeepHold/DeepSleepController.h"
#include "Power/WakePolicyEngine.h"
#include "Support/EventLoop.h"
#include "Support/UnixSocket.h"
#include "Support/VirtualTime.h"
#include "System/CommandHolds.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

const auto deepHold = WakeDecision::hold("work", 1, true);
const auto shallowHold = WakeDecision::hold("work", 1, false);
const auto released = WakeDecision::release("done");

/// A helper's client that answers when the test says.
struct FakeController final : DeepSleepControlling {
  void status(std::move_only_function<void(DeepSleepStatus)> done) override {
    note("status", [this, done = std::move(done)]() mutable { done(helper); });
  }
  void acquire(double ttl, std::move_only_function<void(bool)> done) override {
    note("acquire " + std::to_string(static_cast<int>(ttl)), [this, done = std::move(done)]() mutable {
      helper.isDeepHoldActive = helper.currentSystemSleepDisabled = refusal.empty();
      if (refusal.empty()) helper.activeLeaseId = "ours";
      done(refusal.empty());
    });
  }
  void release(std::move_only_function<void()> done) override {
    note("release", [this, done = std::move(done)]() mutable {
      helper = DeepSleepStatus{helper.isHelperInstalled, false, {}, {}, {}, false};
      if (done) done();
    });
  }
  void letLapse() override { asked.push_back("letLapse"); }
  std::string lastRefusal() const override { return refusal; }
  std::optional<std::string> leaseId() const override { return "ours"; }

  void note(std::string what, std::move_only_function<void()> answer) {
    asked.push_back(std::move(what));
    if (answers) return answer();
    unanswered.push_back(std::move(answer));
  }

  bool answers = true;
  std::string refusal;
  DeepSleepStatus helper{true, false, {}, {}, {}, false};
  std::vector<std::string> asked;
  std::vector<std::move_only_function<void()>> unanswered;
};

struct DeepHoldLoop : testing::Test {
  VirtualTime time{instantFromReferenceSeconds(0)};
  std::shared_ptr<FakeController> controller = std::make_shared<FakeController>();
  std::shared_ptr<DeepHoldService> service =
      std::make_shared<DeepHoldService>(controller, time.mainQueue(), time, true);
  WakeDecision last = released;

  void evaluate(const WakeDecision& next) {
    service->didApply(std::exchange(last, next), next);
    time.runReady();
  }
  std::vector<std::string> askedFor() {
    auto asked = std::exchange(controller->asked, {});
    std::erase(asked, "status");
    return asked;
  }
};

TEST_F(DeepHoldLoop, acquiresOnEveryEvaluationAndReleasesAtTheEndOfTheHold) {
  for (int second = 0; second < 3; ++second) {
    evaluate(deepHold);
    time.advance(1s);
  }
  evaluate(released);
  evaluate(released);
  EXPECT_THAT(askedFor(), ElementsAre("acquire 60", "acquire 60", "acquire 60", "release"));
  EXPECT_FALSE(service->helperStatus().get()->isDeepHoldActive);
}

TEST_F(DeepHoldLoop, tellsOfARefusalAndOfItsEndThoughTheStatusStaysTheSame) {
  // What surfaces are told must not wait for a status that never differs.
  int told = 0;
  const auto subscription = service->reportChanged().subscribe([&] { ++told; });
  controller->helper.isHelperInstalled = false;
  controller->refusal = "no helper is installed";
  evaluate(deepHold);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(service->report().explanation, "closing the lid suspends the machine: no helper is installed");
  evaluate(deepHold);
  EXPECT_EQ(told, 1) << "once for each change";
  controller->refusal.clear();
  evaluate(deepHold);
  EXPECT_EQ(told, 2);
}

TEST_F(DeepHoldLoop, cutsTheHoldWithinOneEvaluationForSafety) {
  for (const auto block : {SafetyBlock::batteryBelowFloor, SafetyBlock::thermalCritical}) {
    evaluate(deepHold);
    (void)askedFor();
    evaluate(WakeDecision::blocked(block));
    EXPECT_THAT(askedFor(), ElementsAre("release"));
  }
}

TEST_F(DeepHoldLoop, letsTheLeaseRunOutWhenTheHoldGoesOnWithoutTheLid) {
  evaluate(deepHold);
  evaluate(shallowHold);
  evaluate(shallowHold);
  EXPECT_THAT(askedFor(), ElementsAre("acquire 60", "letLapse"));
  evaluate(released);
  EXPECT_THAT(askedFor(), ElementsAre("release"));
}

TEST_F(DeepHoldLoop, keepsAtMostOneRequestUnderWayAndRemembersTheLatestWish) {
  controller->answers = false;
  for (int second = 0; second < 100; ++second) {
    evaluate(deepHold);
    time.advance(1s);
  }
  EXPECT_EQ(controller->asked.size(), 1U);
  evaluate(released);
  evaluate(deepHold);
  evaluate(released);
  EXPECT_EQ(controller->asked.size(), 1U);
  service->didStop();
  EXPECT_THAT(askedFor(), ElementsAre("acquire 60", "release")) << "the last one by the stop";
  controller->answers = true;
  controller->unanswered.front()();
  time.runReady();
  EXPECT_THAT(askedFor(), ElementsAre());
}

TEST_F(DeepHoldLoop, tellsWhetherTheLidIsCoveredByWhomAndWhatToDo) {
  EXPECT_EQ(service->report().cover, LidCover::off);
  controller->refusal = "no helper is installed";
  controller->helper.isHelperInstalled = false;
  evaluate(deepHold);
  EXPECT_EQ(service->report().cover, LidCover::uncovered);
  EXPECT_TRUE(service->report().remedy.contains("systemctl enable --now vimbrel-helper.socket"));

  controller->refusal.clear();
  controller->helper.isHelperInstalled = true;
  controller->helper.leaseExpiresAt = time.now() + Seconds{60};
  time.advance(6s);
  evaluate(deepHold);
  EXPECT_EQ(service->report(),
            (ClosedLidReport{LidCover::covered, "the system's helper", controller->helper.leaseExpiresAt,
                             "the lid may be closed", ""}));
}

TEST_F(DeepHoldLoop, examinesTheHelperFromEndToEndWithoutDisturbingALease) {
  std::optional<DoctorFinding> finding;
  const auto examine = [&] {
    service->examine([&](DoctorFinding found) { finding = std::move(found); });
    time.runReady();
    return finding->verdict;
  };
  EXPECT_EQ(examine(), DoctorFinding::Verdict::works);
  EXPECT_THAT(controller->asked, ElementsAre("status", "acquire 2", "status", "release"));
  evaluate(deepHold);
  (void)askedFor();
  EXPECT_EQ(examine(), DoctorFinding::Verdict::works);
  EXPECT_THAT(askedFor(), ElementsAre());
  evaluate(released);
  controller->refusal = "polkit does not allow com.vimbrel.helper.hold to this user";
  EXPECT_EQ(examine(), DoctorFinding::Verdict::refused);
  EXPECT_NE(finding->remedy, "");
}

TEST(DeepHoldService, neverHoldsUpTheLoopForAHelperThatAcceptsAndNeverAnswers) {
  const CapturedLog quiet;
  const TemporaryDirectory directory;
  const auto path = directory.file("helper.sock");
  const auto silentHelper = listenOnUnixSocket(path, 0600, 8);
  ASSERT_TRUE(silentHelper);
  EventLoop loop;
  const SystemClock clock;
  auto controller = std::make_shared<DeepSleepController>(loop, path);
  auto service = std::make_shared<DeepHoldService>(controller, loop.mainQueue(), clock, false);
  int evaluations = 0;
  const auto timer = loop.mainQueue()->every(0ms, 20ms, TimerPrecision::exact, [&] {
    service->didApply(deepHold, deepHold);
    ++evaluations;
    // The first exchange takes the second that a silent helper is given.
    if (!controller->lastRefusal().empty()) loop.stop();
  });
  loop.run();
  EXPECT_GT(evaluations, 5);
  EXPECT_EQ(controller->lastRefusal(), "the helper at " + path + " does not answer");
}

TEST(CommandHolds, areReasonsToHoldUnderEverySafetyRule) {
  VirtualTime time{instantFromReferenceSeconds(0)};
  CommandHolds holds;
  int changes = 0;
  const auto token = holds.changed().subscribe([&] { ++changes; });
  const auto decide = [&](bool hot = false) {
    PolicyEvaluationContext context;
    context.now = time.now();
    context.config.deepLidProtectionEnabled = false;
    if (hot) context.thermalState = SystemThermalState::critical;
    holds.willDecide(context);
    return WakePolicyEngine().evaluate(context);
  };
  auto make = holds.add({"make", time.now() + Seconds{60}, true});
  EXPECT_EQ(decide(), WakeDecision::hold("Running make", 0, true));
  EXPECT_EQ(decide(true), WakeDecision::blocked(SafetyBlock::thermalCritical));
  const auto curl = holds.add({"curl", time.now() + Seconds{90}, false});
  EXPECT_EQ(decide(), WakeDecision::hold("Running make, curl", 0, true));
  make.reset();
  EXPECT_EQ(decide(), WakeDecision::hold("Running curl", 0, false));
  time.advance(90s);
  EXPECT_FALSE(decide().isHolding()) << "its time is up";
  EXPECT_TRUE(holds.active(time.now()).empty());
  EXPECT_EQ(changes, 3) << "two came, one was taken back";
}

}  // namespace
}  // namespace vimbrel
