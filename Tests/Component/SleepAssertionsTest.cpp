// SPDX-License-Identifier: Apache-2.0
// Runs inside rig.sh; each suite names in CMakeLists.txt the parts that it needs.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CapturedLog.h"
#include "Component/Rig.h"
#include "Platform/Linux/LinuxSleepAssertions.h"
#include "SleepAssertionsContract.h"

namespace vimbrel {
namespace {

using rig::eventually;
using rig::listInhibitors;
using rig::occurrences;
using testing::HasSubstr;

constexpr auto systemSleep = AssertionType::preventUserIdleSystemSleep;
constexpr auto displaySleep = AssertionType::preventUserIdleDisplaySleep;

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
  for (const char* stop : {"stop logind", "kill logind"}) {
    rig::order(stop);
    EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::missing; }));
    rig::order("start logind");
    EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::granted; }));
    EXPECT_EQ(idleLocksOfAnybody(), 1) << stop;
  }
  EXPECT_GE(changes, 4);
  const auto lines = log.take();
  EXPECT_EQ(std::ranges::count(lines, "info power: logind: its service is back, the assertion is held again"),
            2);
}

TEST_F(Logind, takesTheLockAgainWhenTheWholeBusWasRestarted) {
  take();
  rig::order("kill logind");
  rig::order("restart system-bus");
  EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::missing; }));
  rig::order("restart polkit");
  rig::order("start logind");
  EXPECT_TRUE(eventually(loop, [&] { return state("logind") == MechanismState::granted; }));
  EXPECT_EQ(idleLocksOfAnybody(), 1);
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

TEST_F(Logind, killedHolderReleases) {
  int input[2];
  ASSERT_EQ(::pipe(input), 0);
  const auto child = ::fork();
  if (child == 0) {
    ::dup2(input[0], STDIN_FILENO);
    ::close(input[1]);
    ::execl(HOLD_ASSERTION, HOLD_ASSERTION, nullptr);
    ::_exit(127);
  }
  EXPECT_TRUE(eventually(loop, [] { return idleLocksOfAnybody() == 1; }));
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  EXPECT_TRUE(eventually(loop, [] { return idleLocksOfAnybody() == 0; }));
  ::close(input[0]);
  ::close(input[1]);
}

class Denied : public SleepAssertionsTest {};

TEST_F(Denied, refusalIsReportedInThePolicysOwnWords) {
  const auto handle = assertions->create(systemSleep, "Vimbrel: test");
  ASSERT_FALSE(handle.has_value());
  EXPECT_EQ(handle.error().fault, AssertionFault::denied);
  EXPECT_THAT(handle.error().detail, HasSubstr("logind: "));
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
