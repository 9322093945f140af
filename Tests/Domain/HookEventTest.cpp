// SPDX-License-Identifier: Apache-2.0
#include "Domain/HookEvent.h"

#include <gtest/gtest.h>

#include <random>

namespace vimbrel {
namespace {

const Instant now = instantFromUnixSeconds(1'700'000'000);

/// An idle event of Codex with these members, too.
std::expected<HookEvent, std::string> idleWith(const std::string& members) {
  return HookEvent::parse(R"({"agent":"CODEX","state":"Idle")" + members + "}", now);
}

TEST(HookEventDecoding, isLenientFieldByField) {
  HookEvent idle;
  idle.agent = AgentType::codex;
  idle.sessionId = "codex-default";
  idle.state = AgentState::idle;
  idle.timestamp = now;
  EXPECT_EQ(idleWith(""), idle);
  for (const auto* ignored :
       {R"(,"schema":"2")", R"(,"pid":"77")", R"(,"pid":2147483648)", R"(,"session_id":"")",
        R"(,"timestamp":"2024-01-01")", R"(,"timestamp":null,"cwd":null,"model":[],"turn_id":{})",
        R"(,"input_tokens":12.5,"output_tokens":"9")", R"(,"output_tokens":9223372036854775808)",
        R"(,"output_tokens":1e999,"unknown":[1e999,-0,0.5,7E+2,7e-2,"1e999 \"x"])",
        R"(,"unknown":{"deep":[1,[2,{"x":[]}]]})"}) {
    EXPECT_EQ(idleWith(ignored), idle) << ignored;
  }
  // What is wrong in one member leaves the others alone.
  idle.schema = 2;
  idle.pid = -2147483648;
  idle.sessionId = "codex--2147483648";
  idle.timestamp = instantFromUnixSeconds(-2.5);
  idle.inputTokens = 9223372036854775807;
  idle.cachedTokens = 8;
  idle.reasoningTokens = -3;
  idle.cwd = " A/é ";
  idle.model = "m";
  idle.turnId = "t";
  EXPECT_EQ(
      idleWith(R"(,"schema":2,"session_id":7,"pid":-2147483648,"timestamp":-25E-1,"output_tokens":1e999,)"
               R"("input_tokens":9223372036854775807,"cached_tokens":8,"reasoning_tokens":-3,)"
               R"("cwd":" A\/é ","model":"m","turn_id":"t")"),
      idle);
  const auto mystery = HookEvent::parse(R"({"agent":"mystery","state":"sleeping","pid":77})", now);
  EXPECT_EQ(mystery->agent, AgentType::custom);
  EXPECT_EQ(mystery->state, AgentState::unknown);
  EXPECT_EQ(mystery->sessionId, "custom-77");
}

TEST(HookEventDecoding, refusesOnlyWhatNamesNoAgentOrState) {
  for (const std::string document :
       {"", "null", "[]", "7", "{}", R"({"agent":"codex"})", R"({"state":"idle"})",
        R"({"agent":7,"state":"idle"})", R"({"agent":"codex","state":null})",
        R"({"agent":"codex","state":"idle")", "\xff\xfe", R"({"agent":"codex"}x)"}) {
    const auto event = HookEvent::parse(document, now);
    ASSERT_FALSE(event) << document;
    EXPECT_FALSE(event.error().empty());
    EXPECT_EQ(event.error().find_first_of("\"\\\n"), std::string::npos) << event.error();
  }
  EXPECT_FALSE(HookEvent::parse(std::string(60000, '['), now));
  // A number that is too large makes the document be looked at again; nothing else is forgiven for it.
  const std::string large = R"({"agent":"codex","state":"idle","pid":1e999,"x":)";
  for (const auto* rest :
       {"", "-", "-}", "01}", "1.", "1.}", "1e", "1e}", "1e+", "1E-}", "1", "12.5", "\"a", "\"a\\"}) {
    EXPECT_FALSE(HookEvent::parse(large + rest, now)) << rest;
  }
  const std::string blank(65536, ' ');
  EXPECT_TRUE(HookEvent::parse(large + "1}" + blank.substr(large.size() + 2), now));
  EXPECT_EQ(HookEvent::parse(large + "1}" + blank, now).error(), "the document is larger than 65536 bytes");
}

TEST(HookEventEncoding, isCompactWithEscapedSlashesAndNothingAbsent) {
  HookEvent event;
  event.agent = AgentType::claude;
  event.sessionId = "sess-01";
  event.state = AgentState::working;
  event.timestamp = instantFromUnixSeconds(1731790000.25);
  event.pid = 4242;
  event.cwd = "/tmp/project";
  event.inputTokens = 1200;
  event.outputTokens = 300;
  event.model = "claude-3-5-sonnet";
  EXPECT_EQ(
      event.toJSONData(),
      R"({"schema":1,"agent":"claude","session_id":"sess-01","state":"working","timestamp":1731790000.25,)"
      R"("pid":4242,"cwd":"\/tmp\/project","input_tokens":1200,"output_tokens":300,"model":"claude-3-5-sonnet"})");
}

TEST(HookEventEncoding, readsBackAsItWas) {
  std::mt19937_64 random(42);
  const auto text = [&] {
    std::string made;
    for (auto length = random() % 12; length > 0; --length) {
      const char* pieces[] = {"a", "/", "\"", "\\", "\n", "\x01", "é", "日", "😀", "\x7f"};
      made += pieces[random() % std::size(pieces)];
    }
    return made;
  };
  for (int i = 0; i < 2000; ++i) {
    HookEvent event;
    event.schema = static_cast<std::int64_t>(random());
    event.agent = allAgentTypes[random() % allAgentTypes.size()];
    event.sessionId = "s" + text();
    event.state = allAgentStates[random() % allAgentStates.size()];
    event.timestamp = instantFromUnixSeconds(static_cast<double>(random() % 4'000'000'000'000) / 1013.0);
    if (random() % 2 == 0) event.pid = static_cast<std::int32_t>(random());
    if (random() % 2 == 0) event.cwd = text();
    if (random() % 2 == 0) event.inputTokens = static_cast<std::int64_t>(random());
    if (random() % 2 == 0) event.turnId = text();
    const auto back = HookEvent::parse(event.toJSONData(), now);
    ASSERT_TRUE(back) << event.toJSONData();
    ASSERT_EQ(*back, event) << event.toJSONData();
  }
}

}  // namespace
}  // namespace vimbrel
