// SPDX-License-Identifier: Apache-2.0
#include "Control/DeepHoldMethods.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "CapturedLog.h"
#include "Control/DoctorMethods.h"
#include "Control/ProtectionMethods.h"
#include "Control/StatusMethods.h"
#include "Simulation/SimulatedApplication.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

/// A connection that the test ends.
struct Peer final : RpcPeer {
  void subscribe() override {}
  void unsubscribe() override {}
  void end() { kept_.clear(); }
};

/// The application on virtual time and its control methods without a socket.
struct DeepHoldMethods : testing::Test {
  CapturedLog quiet;
  SimulatedApplication world;
  ControlServer server{world.time().mainQueue(), world.time()};
  ControlledApplication application{world.app().coordinator(), world.app().platform(),     world.time(), "1",
                                    &world.app().deepHold(),   &world.app().commandHolds()};
  Peer peer;
  std::vector<Token> tokens;

  void SetUp() override {
    world.start();
    tokens.push_back(addStatusMethods(server, application));
    tokens.push_back(addDeepHoldMethods(server, application));
    addProtectionMethods(server, application);
    addDoctorMethods(server, application);
  }
  void TearDown() override { EXPECT_FALSE(world.violation()) << *world.violation(); }
  /// The result of a method, or its error.
  json ask(const std::string& method, const json& params = json::object()) {
    json answer;
    const json request{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}};
    server.methods().handle(request.dump(), peer,
                            [&](const std::string& line) { answer = json::parse(line); });
    world.settle();
    return answer.contains("result") ? answer["result"] : answer["error"];
  }
  json after(std::chrono::seconds time) {
    world.run(time);
    return ask("status");
  }
};

TEST_F(DeepHoldMethods, holdWhileTheConnectionLives) {
  ASSERT_TRUE(world.app().settings().setDeepLidProtectionEnabled(false));
  EXPECT_EQ(after(1s)["closedLid"]["cover"], "off");
  const auto begun = ask("holdWhile", {{"command", "make"}, {"seconds", 600}, {"lid", true}});
  EXPECT_EQ(begun["statusDescription"], "Active (0 working agents) \u2014 Running make");
  const auto held = after(7s);
  EXPECT_EQ(held["closedLid"]["cover"], "covered");
  EXPECT_EQ(held["closedLid"]["coveredBy"], "the system's helper");
  EXPECT_TRUE(parseIso8601(held["closedLid"]["until"].get<std::string>()));
  EXPECT_EQ(held["commandHolds"][0]["command"], "make");
  EXPECT_EQ(ask("why")["closedLid"]["cover"], "covered");
  peer.end();
  EXPECT_FALSE(after(1s)["isHolding"].get<bool>());
  EXPECT_EQ(after(6s)["closedLid"]["cover"], "off");
}

TEST_F(DeepHoldMethods, endAHoldWhenItsTimeIsUpAndNeverOverruleASafetyRule) {
  ask("holdWhile", {{"command", "curl"}, {"seconds", 30}});
  EXPECT_TRUE(after(29s)["isHolding"].get<bool>());
  EXPECT_FALSE(after(2s)["isHolding"].get<bool>());
  world.machine().change(
      [](SimulatedWorld& machine) { machine.thermalState = SystemThermalState::critical; });
  world.settle();
  const auto hot = ask("holdWhile", {{"command", "make"}, {"seconds", 600}, {"lid", true}});
  EXPECT_FALSE(hot["isHolding"].get<bool>());
  EXPECT_NE(after(7s)["closedLid"]["cover"], "covered");
}

TEST_F(DeepHoldMethods, refuseHoldsThatCannotBeMeant) {
  for (const auto& params : {json{{"command", ""}, {"seconds", 5}}, json{{"command", "make"}},
                             json{{"command", "make"}, {"seconds", 0}}, json{{"command", 7}, {"seconds", 5}},
                             json{{"command", "make"}, {"seconds", 1e9}},
                             json{{"command", std::string(201, 'x')}, {"seconds", 5}}}) {
    EXPECT_TRUE(ask("holdWhile", params).contains("code")) << params;
  }
  for (int i = 0; i < 64; ++i) ask("holdWhile", {{"command", "make"}, {"seconds", 5}});
  EXPECT_TRUE(ask("holdWhile", {{"command", "make"}, {"seconds", 5}}).contains("code"))
      << "they have a bound";
}

TEST_F(DeepHoldMethods, tryTheHelperOutForTheDoctor) {
  const auto answer = ask("doctor");
  bool found = false;
  for (const auto& finding : answer["findings"]) {
    if (finding["subject"] != "closed lid") continue;
    found = true;
    EXPECT_EQ(finding["verdict"], "works");
    EXPECT_EQ(finding["explanation"], "the system's helper covers the lid when it is asked to");
  }
  EXPECT_TRUE(found);
  EXPECT_EQ(after(6s)["closedLid"]["cover"], "notNeeded");
}

}  // namespace
}  // namespace vimbrel
