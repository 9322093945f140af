// SPDX-License-Identifier: Apache-2.0
// Runs inside rig.sh; each suite names in CMakeLists.txt the parts that it needs.
#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "CapturedLog.h"
#include "Component/Rig.h"
#include "Platform/Linux/LinuxSleepAssertions.h"
#include "SleepAssertionsContract.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using rig::eventually;
using rig::listInhibitors;
using rig::occurrences;
using testing::HasSubstr;

constexpr auto systemSleep = AssertionType::preventUserIdleSystemSleep;
constexpr auto displaySleep = AssertionType::preventUserIdleDisplaySleep;

/// A queue that counts the timers on it that have not been dropped.
class TimerCountingQueue final : public TaskQueue {
 public:
  explicit TimerCountingQueue(std::shared_ptr<TaskQueue> inner) : inner_(std::move(inner)) {}
  [[nodiscard]] int timers() const { return *timers_; }

  [[nodiscard]] const std::string& label() const override { return inner_->label(); }
  void post(Task task) override { inner_->post(std::move(task)); }
  Token after(std::chrono::nanoseconds delay, Task task) override {
    ++*timers_;
    auto token = std::make_shared<Token>(inner_->after(delay, std::move(task)));
    return Token{[token, timers = timers_] {
      token->reset();
      --*timers;
    }};
  }
  Token every(std::chrono::nanoseconds first, std::chrono::nanoseconds interval, TimerPrecision precision,
              std::move_only_function<void()> task) override {
    return inner_->every(first, interval, precision, std::move(task));
  }
  Token watchReadable(int descriptor, std::move_only_function<void()> ready) override {
    return inner_->watchReadable(descriptor, std::move(ready));
  }
  Token onceWritable(int descriptor, Task ready) override {
    return inner_->onceWritable(descriptor, std::move(ready));
  }
  [[nodiscard]] bool isCurrent() const override { return inner_->isCurrent(); }

 private:
  const std::shared_ptr<TaskQueue> inner_;
  const std::shared_ptr<int> timers_ = std::make_shared<int>(0);
};

struct World {
  EventLoop loop;
  std::shared_ptr<TaskQueue> queue = loop.mainQueue();
  std::shared_ptr<BusConnection> system = std::make_shared<BusConnection>(BusKind::system, queue);
  std::shared_ptr<BusConnection> session = std::make_shared<BusConnection>(BusKind::session, queue);
  std::shared_ptr<LinuxSleepAssertions> assertions =
      std::make_shared<LinuxSleepAssertions>(queue, system, session, std::getenv("XDG_CURRENT_DESKTOP"));
};

class SleepAssertionsTest : public testing::Test, public World {
 protected:
  AssertionHandle take(AssertionType type = systemSleep, const std::string& name = "Vimbrel: test") {
    const auto handle = assertions->create(type, name);
    EXPECT_TRUE(handle.has_value()) << (handle ? "" : handle.error().detail);
    return handle.value_or(0);
  }
  [[nodiscard]] MechanismStatus mechanism(const std::string& name) const {
    for (const auto& status : assertions->mechanisms()) {
      if (status.name == name) return status;
    }
    return {};
  }
  [[nodiscard]] MechanismState state(const std::string& name) const { return mechanism(name).state; }
  /// The reasons that a mock session service holds.
  static std::string heldBy(const std::string& service) {
    return rig::busCall("session", service, "/mock", "org.vimbrel.Mock.Held");
  }
};

/// This process's idle locks, as logind lists them.
int idleLocks() {
  return occurrences(listInhibitors(), "'idle', 'Vimbrel', 'Vimbrel: test', 'block', uint32 " +
                                           std::to_string(::getuid()) + ", uint32 " +
                                           std::to_string(::getpid()));
}
int idleLocksOfAnybody() { return occurrences(listInhibitors(), "'Vimbrel'"); }

class Logind : public SleepAssertionsTest {};

TEST_F(Logind, holdsOneIdleLockHoweverManyAssertionsNeedIt) {
  const auto system = take();
  EXPECT_EQ(idleLocks(), 1) << listInhibitors();
  const auto display = take(displaySleep);
  EXPECT_EQ(idleLocksOfAnybody(), 1);
  EXPECT_EQ(state("logind"), MechanismState::granted);
  EXPECT_EQ(state("gnome-session"), MechanismState::missing);
  assertions->release(system);
  EXPECT_EQ(idleLocksOfAnybody(), 1);
  assertions->release(display);
  EXPECT_TRUE(eventually(loop, [] { return idleLocksOfAnybody() == 0; }));
  EXPECT_EQ(state("logind"), MechanismState::available);
}

TEST_F(Logind, restartNeitherLosesNorDoublesTheLock) {
  CapturedLog log;
  take();
  int changes = 0;
  assertions->onMechanismsChanged = [&] { ++changes; };
  for (const std::vector<std::string>& orders :
       {std::vector<std::string>{"stop logind", "start logind"},
        {"kill logind", "start logind"},
        {"kill logind", "restart system-bus", "restart polkit", "start logind"}}) {
    for (const auto& each : orders) {
      if (each == "start logind") {
        EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::missing; }));
      }
      rig::order(each);
    }
    EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::granted; }));
    EXPECT_EQ(idleLocksOfAnybody(), 1) << orders.size() << orders[0];
  }
  EXPECT_GE(changes, 6);
  const auto lines = log.take();
  EXPECT_EQ(std::ranges::count(lines, "info power: logind: its service is back, the assertion is held again"),
            3);
}

TEST_F(Logind, forgetsTheLockThatWasReleasedWhileItsServiceWasAway) {
  const auto handle = take();
  rig::order("stop logind");
  EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::missing; }));
  assertions->release(handle);
  rig::order("start logind");
  EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::available; }));
  EXPECT_EQ(idleLocksOfAnybody(), 0);
}

class Session : public SleepAssertionsTest {};

TEST_F(Session, everyServiceHoldsItsPartAndTheScreenOnlyWhenAsked) {
  const auto gnome = "org.gnome.SessionManager";
  const auto power = "org.freedesktop.PowerManagement";
  const auto screen = "org.freedesktop.ScreenSaver";
  const auto system = take();
  EXPECT_EQ(occurrences(heldBy(gnome), "Vimbrel: test"), 1);
  EXPECT_EQ(occurrences(heldBy(power), "Vimbrel: test"), 1);
  EXPECT_EQ(occurrences(heldBy(screen), "Vimbrel: test"), 0);
  EXPECT_EQ(state("screensaver"), MechanismState::available);
  const auto display = take(displaySleep);
  EXPECT_EQ(occurrences(heldBy(gnome), "Vimbrel: test"), 2);
  EXPECT_EQ(occurrences(heldBy(screen), "Vimbrel: test"), 1);
  for (const char* name : {"gnome-session", "power-management", "screensaver"}) {
    EXPECT_EQ(state(name), MechanismState::granted) << name;
  }
  assertions->release(system);
  assertions->release(display);
  for (const char* service : {gnome, power, screen}) {
    EXPECT_TRUE(eventually(loop, [&] { return occurrences(heldBy(service), "Vimbrel") == 0; })) << service;
  }
}

TEST_F(Session, takesAgainWhatARestartedServiceForgot) {
  take();
  rig::order("restart gnome-session");
  rig::order("kill power-management");
  EXPECT_TRUE(eventually(loop, [&] { return state("power-management") == MechanismState::missing; }));
  rig::order("start power-management");
  for (const auto& [name, service] : {std::pair{"gnome-session", "org.gnome.SessionManager"},
                                      std::pair{"power-management", "org.freedesktop.PowerManagement"}}) {
    EXPECT_TRUE(eventually(loop, [&] { return state(name) == MechanismState::granted; })) << name;
    EXPECT_EQ(occurrences(heldBy(service), "Vimbrel: test"), 1);
  }
}

/// The session's services, which answer late by a clock that stands still until it is told to move; only the
/// buses live in real time.
class SlowSession : public testing::Test {
 protected:
  using State = MechanismState;
  struct Service {
    const char* mechanism;
    const char* name;
    AssertionType type;
  };
  static constexpr std::array services{
      Service{"gnome-session", "org.gnome.SessionManager", systemSleep},
      Service{"power-management", "org.freedesktop.PowerManagement", systemSleep},
      Service{"screensaver", "org.freedesktop.ScreenSaver", displaySleep}};

  [[nodiscard]] MechanismStatus mechanism(const Service& service) const {
    const auto all = assertions.mechanisms();
    return *std::ranges::find(all, service.mechanism, &MechanismStatus::name);
  }
  bool becomes(const Service& service, State state) {
    return eventually(loop, [&] {
      time.runReady();
      return mechanism(service).state == state;
    });
  }
  static int held(const Service& service) {
    return occurrences(rig::busCall("session", service.name, "/mock", "org.vimbrel.Mock.Held"), "Vimbrel");
  }
  static void order(const Service& service, const std::string& what) {
    EXPECT_EQ(rig::busCall("session", service.name, "/mock", "org.vimbrel.Mock." + what), "()\n") << what;
  }
  /// Asks the service, which takes it and says nothing, and lets time pass. The others grant theirs.
  AssertionHandle askInVain(const Service& service) {
    order(service, "Delay");
    const auto handle = assertions.create(service.type, "Vimbrel: test");
    EXPECT_TRUE(handle) << service.mechanism;
    EXPECT_EQ(mechanism(service).state, State::available);
    // A call with a time-out would lose the answer, and the cookie in it, when that is over.
    EXPECT_TRUE(eventually(loop, [&] { return sessionQueue->timers() == 0; })) << service.mechanism;
    time.advance(std::chrono::seconds(26));
    EXPECT_EQ(mechanism(service), (MechanismStatus{service.mechanism, State::refused, "no answer in time"}));
    time.advance(std::chrono::minutes(10));
    EXPECT_EQ(held(service), 1) << service.mechanism << " was asked again";
    EXPECT_EQ(mechanism(service).state, State::refused);
    return handle.value_or(0);
  }

  EventLoop loop;
  VirtualTime time{instantFromReferenceSeconds(1000)};
  std::shared_ptr<TimerCountingQueue> sessionQueue = std::make_shared<TimerCountingQueue>(loop.mainQueue());
  std::shared_ptr<BusConnection> system = std::make_shared<BusConnection>(BusKind::system, loop.mainQueue());
  std::shared_ptr<BusConnection> session = std::make_shared<BusConnection>(BusKind::session, sessionQueue);
  LinuxSleepAssertions assertions{time.mainQueue(), system, session, ""};
};

TEST_F(SlowSession, isBelievedHoweverLateItAnswers) {
  for (const auto& service : services) {
    const auto handle = askInVain(service);
    order(service, "Answer");
    EXPECT_TRUE(becomes(service, State::granted)) << service.mechanism;
    EXPECT_EQ(held(service), 1) << service.mechanism;
    assertions.release(handle);
    EXPECT_TRUE(eventually(loop, [&] { return held(service) == 0; })) << service.mechanism;
  }
}

TEST_F(SlowSession, getsBackWhatIsNotWantedAnyMore) {
  for (const auto& service : services) {
    assertions.release(askInVain(service));
    EXPECT_EQ(held(service), 1) << service.mechanism;
    order(service, "Answer");
    EXPECT_TRUE(becomes(service, State::available)) << service.mechanism;
    EXPECT_TRUE(eventually(loop, [&] { return held(service) == 0; })) << service.mechanism;
  }
}

TEST_F(SlowSession, isAskedAgainWhenItEndsWithoutAnAnswer) {
  for (const auto& service : services) {
    const auto handle = askInVain(service);
    rig::order(std::string("kill ") + service.mechanism);
    EXPECT_TRUE(becomes(service, State::missing)) << service.mechanism;
    rig::order(std::string("start ") + service.mechanism);
    EXPECT_TRUE(becomes(service, State::granted)) << service.mechanism;
    EXPECT_EQ(held(service), 1) << service.mechanism;
    assertions.release(handle);
    EXPECT_TRUE(eventually(loop, [&] { return held(service) == 0; })) << service.mechanism;
  }
}

class BareScreenSaver : public SleepAssertionsTest {};

TEST_F(BareScreenSaver, findsTheOtherPathAndReleasesTheCookieZero) {
  const auto screen = "org.freedesktop.ScreenSaver";
  const auto handle = take(displaySleep);
  EXPECT_EQ(occurrences(heldBy(screen), "Vimbrel: test"), 1);
  assertions->release(handle);
  EXPECT_TRUE(eventually(loop, [&] { return occurrences(heldBy(screen), "Vimbrel") == 0; }));
}

class LateSession : public SleepAssertionsTest {};

TEST_F(LateSession, joinsADesktopThatStartsLater) {
  take();
  EXPECT_EQ(state("gnome-session"), MechanismState::missing);
  rig::order("start session");
  rig::order("start gnome-session");
  EXPECT_TRUE(eventually(loop, [&] { return state("gnome-session") == MechanismState::granted; }));
  EXPECT_EQ(occurrences(heldBy("org.gnome.SessionManager"), "Vimbrel: test"), 1);
}

class Kde : public SleepAssertionsTest {};

TEST_F(Kde, leavesTheScreenAloneAndKeepsItsReasonConstant) {
  const auto system = take(systemSleep, "Vimbrel: 3 agents");
  EXPECT_EQ(idleLocksOfAnybody(), 0);
  EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::available; }));
  EXPECT_EQ(occurrences(heldBy("org.freedesktop.PowerManagement"), "AI coding agents are working"), 1);
  const auto display = take(displaySleep, "Vimbrel: 3 agents");
  EXPECT_EQ(idleLocksOfAnybody(), 1);
  assertions->release(display);
  EXPECT_TRUE(eventually(loop, [] { return idleLocksOfAnybody() == 0; }));
  // Without the power manager, logind is what is left to keep the machine awake.
  rig::order("stop power-management");
  EXPECT_TRUE(eventually(loop, [] { return idleLocksOfAnybody() == 1; }));
  assertions->release(system);
}

class Nothing : public SleepAssertionsTest {};

TEST_F(Nothing, everyMechanismIsMissingAndSaysWhy) {
  const auto handle = assertions->create(systemSleep, "Vimbrel: test");
  ASSERT_FALSE(handle.has_value());
  EXPECT_EQ(handle.error().fault, AssertionFault::unavailable);
  for (const auto& status : assertions->mechanisms()) {
    EXPECT_EQ(status.state, MechanismState::missing) << status.name;
    EXPECT_THAT(status.detail, HasSubstr("bus")) << status.name;
  }
}

INSTANTIATE_TEST_SUITE_P(Linux, SleepAssertionsContract, testing::Values([] {
                           const auto world = std::make_shared<World>();
                           return SleepAssertionsSubject{world, world->assertions};
                         }));

}  // namespace
}  // namespace vimbrel
