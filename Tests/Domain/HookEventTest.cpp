// SPDX-License-Identifier: Apache-2.0
#include "Domain/HookEvent.h"

#include <gtest/gtest.h>

#include <random>

namespace vimbrel {
namespace {

const Instant now = instantFromUnixSeconds(1'700'000'000);

TEST(HookEventDecoding, isLenientFieldByField) {
  const auto base = [] {
    HookEvent event;
    event.agent = AgentType::codex;
    event.sessionId = "codex-default";
    event.state = AgentState::idle;
    event.timestamp = now;
    return event;
  };
  struct Case {
    std::string fields;
    std::function<void(HookEvent&)> expected;
  };
  const std::vector<Case> cases{
      {"", [](HookEvent&) {}},
      {R"(,"schema":2)", [](HookEvent& e) { e.schema = 2; }},
      {R"(,"schema":"2")", [](HookEvent&) {}},
      {R"(,"pid":77)", [](HookEvent& e) { e.pid = 77, e.sessionId = "codex-77"; }},
      {R"(,"pid":"77")", [](HookEvent&) {}},
      {R"(,"pid":2147483648)", [](HookEvent&) {}},
      {R"(,"pid":-2147483648)", [](HookEvent& e) { e.pid = -2147483648, e.sessionId = "codex--2147483648"; }},
      {R"(,"session_id":"")", [](HookEvent&) {}},
      {R"(,"session_id":7,"pid":3)", [](HookEvent& e) { e.pid = 3, e.sessionId = "codex-3"; }},
      {R"(,"session_id":" A\/é ")", [](HookEvent& e) { e.sessionId = " A/é "; }},
      {R"(,"timestamp":12.5)", [](HookEvent& e) { e.timestamp = instantFromUnixSeconds(12.5); }},
      {R"(,"timestamp":12)", [](HookEvent& e) { e.timestamp = instantFromUnixSeconds(12); }},
      {R"(,"timestamp":"2024-01-01")", [](HookEvent&) {}},
      {R"(,"timestamp":null,"cwd":null,"model":[],"turn_id":{})", [](HookEvent&) {}},
      {R"(,"input_tokens":12.5,"output_tokens":"9","cached_tokens":8)",
       [](HookEvent& e) { e.cachedTokens = 8; }},
      {R"(,"input_tokens":9223372036854775807,"output_tokens":9223372036854775808)",
       [](HookEvent& e) { e.inputTokens = 9223372036854775807; }},
      {R"(,"output_tokens":1e999,"reasoning_tokens":-3)", [](HookEvent& e) { e.reasoningTokens = -3; }},
      {R"(,"unknown":[1e999,-0,0.5,7E+2,7e-2,"1e999 \"x"],"timestamp":-25E-1,"pid":12)",
       [](HookEvent& e) {
         e.timestamp = instantFromUnixSeconds(-2.5), e.pid = 12, e.sessionId = "codex-12";
       }},
      {R"(,"unknown":{"deep":[1,[2,{"x":[]}]]},"cwd":"/a","model":"m","turn_id":"t")",
       [](HookEvent& e) { e.cwd = "/a", e.model = "m", e.turnId = "t"; }},
  };
  for (const auto& [fields, change] : cases) {
    auto expected = base();
    change(expected);
    const auto event = HookEvent::parse(R"({"agent":"CODEX","state":"Idle")" + fields + "}", now);
    ASSERT_TRUE(event) << fields << ": " << event.error();
    EXPECT_EQ(*event, expected) << fields;
  }
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
  EXPECT_EQ(
      event.toJSONData(),
      R"({"schema":1,"agent":"claude","session_id":"sess-01","state":"working","timestamp":1731790000.25})");
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
