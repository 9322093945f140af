// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "DeepHold/HelperExchange.h"

namespace vimbrel {
namespace {

TEST(DeepHoldProtocol, writesAbsentFieldsNotAtAllAndReadsBackWhatItWrote) {
  EXPECT_EQ(encode(HelperRequest{}), R"({"command":"status"})");
  EXPECT_EQ(encode(HelperRequest{HelperCommand::release, "A", std::nullopt}),
            R"({"command":"release","leaseId":"A"})");
  EXPECT_EQ(encode(HelperRequest{HelperCommand::acquire, "A", 60}),
            R"({"command":"acquire","leaseId":"A","ttlSeconds":60.0})");
  EXPECT_EQ(encode(HelperResponse{true, std::nullopt, std::nullopt}), R"({"ok":true})");

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

TEST(HelperExchange, refusesAPathThatNoPeerCouldUse) {
  EXPECT_FALSE(exchangeWithHelper("/tmp/" + std::string(98, 'x'), {}));
}

}  // namespace
}  // namespace vimbrel
