// SPDX-License-Identifier: Apache-2.0
// The product's promise, kept by real processes on a real systemd-logind: an agent's hook keeps the machine
// awake.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>

#include "Component/Rig.h"
#include "EndToEnd/ProcessHarness.h"

namespace vimbrel {
namespace {

const std::string held = "('idle', 'Vimbrel'";

std::unique_ptr<RunningProcess> start(const Sandbox& sandbox) {
  auto process = std::make_unique<RunningProcess>(std::vector<std::string>{vimbrelProgram(), "run"},
                                                  sandbox.environment);
  EXPECT_TRUE(eventually([&] { return sandbox.vimbrel({"status"}).status == 0; })) << process->errors();
  return process;
}

void report(const Sandbox& sandbox, const std::string& state) {
  EXPECT_EQ(sandbox.relay({"--agent", "claude", "--state", state, "--session", "s1"}).status, 0);
}

int inhibitors() { return rig::occurrences(rig::listInhibitors(), held); }

TEST(Application, holdsALogindInhibitorFromTheHookToTheEndOfTheReleaseDelay) {
  const Sandbox sandbox;
  const auto application = start(sandbox);
  EXPECT_EQ(inhibitors(), 0);
  report(sandbox, "working");
  ASSERT_TRUE(eventually([] { return inhibitors() == 1; })) << rig::listInhibitors();
  const auto status = sandbox.vimbrel({"status", "--json"}).output;
  EXPECT_NE(status.find("logind"), std::string::npos) << status;
  EXPECT_NE(status.find("\"simulated\": false"), std::string::npos) << status;
  EXPECT_EQ(sandbox.vimbrel({"settings", "set", "releaseDelaySeconds", "1"}).status, 0);
  report(sandbox, "idle");
  EXPECT_TRUE(eventually([] { return inhibitors() == 0; }));
  application->signal(SIGTERM);
  EXPECT_EQ(application->wait(), 0);
}

TEST(Application, losesItsInhibitorWithItsLifeAndWithAStop) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    const Sandbox sandbox;
    const auto application = start(sandbox);
    report(sandbox, "working");
    ASSERT_TRUE(eventually([] { return inhibitors() == 1; }));
    application->signal(signal);
    application->wait();
    EXPECT_TRUE(eventually([] { return inhibitors() == 0; })) << signal;
  }
}

TEST(Application, neitherLosesNorDoublesItWhenLogindRestarts) {
  const Sandbox sandbox;
  const auto application = start(sandbox);
  report(sandbox, "working");
  ASSERT_TRUE(eventually([] { return inhibitors() == 1; }));
  for (const std::string order : {"restart logind", "kill logind", "start logind"}) {
    rig::order(order);
    if (order == "kill logind") continue;
    EXPECT_TRUE(eventually([] { return inhibitors() == 1; })) << order;
    // A second one would be taken when the name's new owner is noticed, which the status then shows.
    ASSERT_TRUE(eventually([&] {
      return sandbox.vimbrel({"status", "--json"}).output.find("\"logind\"") != std::string::npos;
    }));
    EXPECT_EQ(inhibitors(), 1) << order;
  }
  report(sandbox, "working");
  EXPECT_EQ(inhibitors(), 1);
}

bool isTold(const Sandbox& sandbox, const std::string& part) {
  return sandbox.vimbrel({"status", "--json"}).output.find(part) != std::string::npos;
}

bool isHeldBy(const Sandbox& sandbox, const std::string& mechanism) {
  return isTold(sandbox, "\"mechanisms\": [\n      \"" + mechanism + "\"");
}

/// The bus dies, and with it whoever lives on it; `meanwhile` happens before all of them are back.
void loseTheSystemBus(const std::string& how, const std::function<void()>& meanwhile) {
  rig::order(how + " system-bus");
  // These end by themselves when their bus does, or are ended now.
  rig::order("kill logind");
  rig::order("kill polkit");
  meanwhile();
  for (const char* order : {"start system-bus", "start polkit", "start logind"}) rig::order(order);
}

TEST(Application, livesThroughTheDeathOfTheWholeBusAndHoldsAgain) {
  const Sandbox sandbox;
  const auto application = start(sandbox);
  EXPECT_EQ(sandbox.vimbrel({"settings", "set", "releaseDelaySeconds", "1"}).status, 0);
  report(sandbox, "working");
  ASSERT_TRUE(eventually([] { return inhibitors() == 1; }));
  for (const std::string how : {"kill", "stop"}) {
    EXPECT_TRUE(eventually([&] { return isHeldBy(sandbox, "logind"); })) << how;
    loseTheSystemBus(how, [&] {
      EXPECT_TRUE(eventually([&] { return isTold(sandbox, R"("mechanisms": [])"); })) << how;
      report(sandbox, "working");
      EXPECT_TRUE(isTold(sandbox, "\"isHolding\": true")) << "the decision does not depend on the bus";
    });
    EXPECT_TRUE(eventually([] { return inhibitors() == 1; })) << how;
  }
  // What ended while nobody could be told is not taken up again.
  loseTheSystemBus("kill", [&] {
    report(sandbox, "idle");
    EXPECT_TRUE(eventually([&] { return isTold(sandbox, "\"isHolding\": false"); }));
  });
  report(sandbox, "working");
  EXPECT_TRUE(eventually([] { return inhibitors() == 1; })) << "a first hold on the new bus";
  report(sandbox, "idle");
  EXPECT_TRUE(eventually([] { return inhibitors() == 0; }));
  application->signal(SIGTERM);
  EXPECT_EQ(application->wait(), 0) << application->errors();
}

TEST(SessionApplication, livesThroughTheDeathOfTheSessionBusAndHoldsAgain) {
  const auto held = [] {
    return rig::occurrences(
        rig::busCall("session", "org.gnome.SessionManager", "/mock", "org.vimbrel.Mock.Held"), "Vimbrel");
  };
  Sandbox sandbox;
  sandbox.environment["DBUS_SESSION_BUS_ADDRESS"] = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const auto application = start(sandbox);
  report(sandbox, "working");
  ASSERT_TRUE(eventually([&] { return held() == 1; })) << sandbox.vimbrel({"doctor"}).output;
  for (const std::string how : {"kill", "stop"}) {
    // The service has heard of the hold before the application knows that it is granted.
    EXPECT_TRUE(eventually([&] { return isHeldBy(sandbox, "gnome-session"); })) << how;
    rig::order(how + " session");
    rig::order("kill gnome-session");
    EXPECT_TRUE(eventually([&] { return isTold(sandbox, R"("mechanisms": [])"); }))
        << how << sandbox.vimbrel({"status", "--json"}).output;
    rig::order("start session");
    rig::order("start gnome-session");
    EXPECT_TRUE(eventually([&] { return held() == 1; })) << how;
  }
  application->signal(SIGTERM);
  EXPECT_EQ(application->wait(), 0) << application->errors();
  EXPECT_EQ(held(), 0);
}

TEST(DeniedApplication, saysThatItWasRefusedAndHoldsNothing) {
  const Sandbox sandbox;
  const auto application = start(sandbox);
  report(sandbox, "working");
  ASSERT_TRUE(eventually([&] {
    return sandbox.vimbrel({"status", "--json"}).output.find("\"isHolding\": true") != std::string::npos;
  }));
  const auto status = sandbox.vimbrel({"status", "--json"}).output;
  EXPECT_NE(status.find("\"system\": false"), std::string::npos) << status;
  EXPECT_NE(status.find("refused"), std::string::npos) << status;
  EXPECT_EQ(inhibitors(), 0);
  const auto doctor = sandbox.vimbrel({"doctor"});
  EXPECT_NE(doctor.output.find("refused"), std::string::npos) << doctor.output;
}

}  // namespace
}  // namespace vimbrel
