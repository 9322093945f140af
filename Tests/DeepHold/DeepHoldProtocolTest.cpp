// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <thread>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "DeepHold/HelperExchange.h"
#include "DeepHold/SimulatedHelper.h"
#include "Support/UnixSocket.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

TEST(DeepHoldProtocol, writesAbsentFieldsNotAtAllAndReadsBackWhatItWrote) {
  EXPECT_EQ(encode(HelperRequest{HelperCommand::release, "A", std::nullopt}),
            R"({"command":"release","leaseId":"A"})");
  EXPECT_EQ(encode(HelperResponse{true, std::nullopt, std::nullopt}), R"({"ok":true})");
  EXPECT_EQ(encode(HelperResponse{true, DeepSleepStatus{}, std::nullopt}),
            R"({"ok":true,"status":{"currentSystemSleepDisabled":false,"isDeepHoldActive":false,)"
            R"("isHelperInstalled":false}})");

  const HelperRequest request{HelperCommand::renew, "\u00e9\n\"", 0.5};
  EXPECT_EQ(decodeHelperRequest(encode(request)), request);
  const HelperResponse response{
      false, DeepSleepStatus{true, true, "A", instantFromReferenceSeconds(0), false, true}, "why"};
  EXPECT_EQ(decodeHelperResponse(encode(response)), response);
  EXPECT_NE(encode(response).find(R"("leaseExpiresAt":0.0)"), std::string::npos);
}

TEST(DeepHoldProtocol, readsStrictly) {
  const auto bare = decodeHelperResponse(
      R"({"ok":true,"error":null,"more":[],"status":{"isHelperInstalled":true,"isDeepHoldActive":false,)"
      R"("currentSystemSleepDisabled":true}})");
  ASSERT_TRUE(bare);
  EXPECT_EQ(*bare->status, (DeepSleepStatus{true, false, std::nullopt, std::nullopt, std::nullopt, true}));

  for (const auto* text :
       {"", "{", "[]", "{}", R"({"ok":1})", R"({"ok":true,"error":3})", R"({"ok":true,"status":[]})",
        R"({"ok":true,"status":{"isHelperInstalled":true,"isDeepHoldActive":false}})", "{\"ok\":true}x"}) {
    EXPECT_FALSE(decodeHelperResponse(text)) << text;
  }
  for (const auto* text :
       {"{}", R"({"command":"Status"})", R"({"command":"acquire","leaseId":7})",
        R"({"command":"acquire","ttlSeconds":"60"})", "{\"command\":\"release\",\"leaseId\":\"\xff\"}"}) {
    EXPECT_FALSE(decodeHelperRequest(text)) << text;
  }
}

TEST(HelperExchange, takesNothingButAnAnswerForAnAnswer) {
  const TemporaryDirectory directory;
  const auto path = directory.file("h");
  EXPECT_FALSE(exchangeWithHelper(path, {})) << "nobody is there";
  EXPECT_FALSE(exchangeWithHelper("/tmp/" + std::string(98, 'x'), {})) << "a path that no peer could use";
  const auto listener = listenOnUnixSocket(path, 0600, 4);
  ASSERT_TRUE(listener);
  for (const auto& [answer, isOne] :
       {std::pair(R"({"ok":true})", true), std::pair("", false), std::pair("{\"ok\":", false)}) {
    const std::jthread helper([&listener, text = std::string(answer)] {
      pollfd somebody{listener->get(), POLLIN, 0};
      EXPECT_EQ(::poll(&somebody, 1, -1), 1);
      const Fd peer(::accept(listener->get(), nullptr, nullptr));
      char request[256];
      EXPECT_GT(::recv(peer.get(), request, sizeof request, 0), 0);
      EXPECT_EQ(::send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(text.size()));
    });
    EXPECT_EQ(exchangeWithHelper(path, {}, std::chrono::minutes(1)).has_value(), isOne) << answer;
  }
}

TEST(SimulatedHelper, keepsTheRulesOfLeasesAndTouchesNothing) {
  VirtualTime time(instantFromReferenceSeconds(0));
  const auto helper = simulatedHelper(time);
  const auto ask = [&](HelperCommand command, std::optional<double> seconds = {}) {
    return helper({command, "A", seconds})->ok;
  };
  const auto isHeld = [&] { return helper({})->status->isDeepHoldActive; };
  EXPECT_FALSE(ask(HelperCommand::renew, 60)) << "nothing is held";
  EXPECT_TRUE(ask(HelperCommand::acquire, 60));
  time.advance(std::chrono::seconds(50));
  EXPECT_TRUE(ask(HelperCommand::renew, 60));
  time.advance(std::chrono::seconds(50));
  EXPECT_TRUE(isHeld());
  EXPECT_FALSE(ask(HelperCommand::uninstall));
  time.advance(std::chrono::seconds(10));
  EXPECT_FALSE(isHeld());
  EXPECT_TRUE(ask(HelperCommand::acquire, 60));
  EXPECT_TRUE(ask(HelperCommand::release));
  EXPECT_FALSE(isHeld());
}

}  // namespace
}  // namespace vimbrel
