// SPDX-License-Identifier: Apache-2.0
#include "Domain/AgentFamilyPresentation.h"

#include <gtest/gtest.h>

#include "Domain/VimbrelVisualState.h"

namespace vimbrel {
namespace {

using enum AgentState;

const Instant now = instantFromUnixSeconds(1'800'000'000);

std::shared_ptr<const AgentSession> session(AgentType agent, AgentState state, int pid,
                                            IntegrationType channel = IntegrationType::lifecycleHook,
                                            const char* host = nullptr) {
  AgentSession made;
  made.id = std::string(rawValue(agent)) + std::to_string(pid);
  made.agentType = agent;
  made.state = state;
  made.startedAt = made.lastEventAt = now - Seconds{1000.0 - pid};
  made.pid = pid;
  if (host != nullptr) made.hostAppName = host;
  made.integrationType = channel;
  return std::make_shared<const AgentSession>(made);
}

ProviderBudgetReport reportOf(AgentType agent, Seconds age) {
  return ProviderBudgetReport::make({.agentType = agent, .lastUpdated = now - age, .source = "test"});
}

TEST(AgentFamilies, showOneLineForEachAgent) {
  const auto process = IntegrationType::process;
  struct Case {
    const char* name;
    SessionList sessions;
    AgentState state;
    std::int64_t logical;
    std::int64_t processes;
    std::string subtitle;
  };
  const auto codex = AgentType::codex;
  const auto cursor = AgentType::cursor;
  const std::vector<Case> cases{
      {"two hook sessions",
       {session(codex, working, 10), session(codex, waiting, 11)},
       working,
       2,
       2,
       "2 sessions active"},
      {"an error outranks work",
       {session(codex, error, 1), session(codex, working, 2)},
       error,
       2,
       2,
       "2 sessions active"},
      {"all completed", {session(codex, completed, 1)}, completed, 1, 1, "1 session active"},
      {"completed and idle",
       {session(codex, completed, 1), session(codex, idle, 2)},
       idle,
       2,
       2,
       "2 processes detected · Idle"},
      {"processes of one host are one session",
       {session(codex, working, 1, process), session(codex, working, 2, process),
        session(codex, working, 3, process)},
       working,
       1,
       3,
       "1 session active (3 processes)"},
      {"processes of two hosts",
       {session(codex, working, 1, process), session(codex, working, 2, process, "Zed"),
        session(codex, working, 3, process)},
       working,
       2,
       3,
       "2 sessions active (3 processes)"},
      {"idle processes",
       {session(cursor, idle, 1, process), session(cursor, stale, 2, process)},
       idle,
       1,
       2,
       "2 processes detected · Idle"},
      {"one idle session", {session(cursor, idle, 1, process)}, idle, 1, 1, "1 process detected · Idle"},
  };
  for (const auto& test : cases) {
    const auto families = AgentFamilyPresentation::buildFamilies(test.sessions, {}, now);
    ASSERT_EQ(families.size(), 1U) << test.name;
    EXPECT_EQ(families[0].aggregateState, test.state) << test.name;
    EXPECT_EQ(families[0].logicalSessionCount, test.logical) << test.name;
    EXPECT_EQ(families[0].processCount, test.processes) << test.name;
    EXPECT_EQ(families[0].summarySubtitle(), test.subtitle) << test.name;
    EXPECT_EQ(families[0].budgetSummaryLine(), test.subtitle) << test.name;
  }
}

TEST(AgentFamilies, groupSessionsByHostNewestFirst) {
  const auto families = AgentFamilyPresentation::buildFamilies(
      SessionList{session(AgentType::claude, idle, 1), session(AgentType::claude, idle, 2),
                  session(AgentType::claude, idle, 3, IntegrationType::lifecycleHook, "Ghostty")},
      {}, now);
  ASSERT_EQ(families.at(0).hosts.size(), 2U);
  EXPECT_EQ(families[0].hosts[0].hostAppName, "Ghostty");
  EXPECT_EQ(families[0].hosts[1].id, "claude_Terminal");
  ASSERT_EQ(families[0].hosts[1].sessions.size(), 2U);
  EXPECT_EQ(families[0].hosts[1].sessions[0]->pid, 2);
  EXPECT_EQ(families[0].sessions.front()->pid, 3);
}

TEST(AgentFamilies, comeInOrderOfAttentionAndIncludeRecentBudgets) {
  const SessionList sessions{session(AgentType::cursor, idle, 1), session(AgentType::aider, idle, 2),
                             session(AgentType::claude, working, 3),
                             session(AgentType::windsurf, waiting, 4)};
  const std::map<AgentType, ProviderBudgetReport> reports{
      {AgentType::codex, reportOf(AgentType::codex, Seconds{600})},
      {AgentType::opencode, reportOf(AgentType::opencode, Seconds{7200})}};
  std::string order;
  for (const auto& family : AgentFamilyPresentation::buildFamilies(sessions, reports, now))
    order += family.id() + " ";
  EXPECT_EQ(order, "windsurf claude aider codex cursor ");
  const auto alone = AgentFamilyPresentation::buildFamilies(SessionList{}, reports, now);
  ASSERT_EQ(alone.size(), 1U);
  EXPECT_EQ(alone[0].summarySubtitle(), "Idle");
  EXPECT_EQ(alone[0].budgetSummaryLine(), "Idle · Ready for sessions");
  EXPECT_EQ(alone[0].aggregateState, idle);
}

TEST(VisualState, showsTheMostUrgentStateUnlessABlockIsInForce) {
  const auto hold = WakeDecision::hold("x", 1, false);
  const auto of = [&](std::initializer_list<AgentState> states, const WakeDecision& decision) {
    SessionList sessions;
    for (const auto state : states) sessions.push_back(session(AgentType::claude, state, 1));
    return aggregateVisualState(sessions, decision);
  };
  EXPECT_EQ(of({}, hold), VimbrelVisualState::idle);
  for (const auto& [state, shown] : {std::pair(AgentState::working, VimbrelVisualState::working),
                                     std::pair(AgentState::waiting, VimbrelVisualState::waiting),
                                     std::pair(AgentState::completed, VimbrelVisualState::completed),
                                     std::pair(AgentState::error, VimbrelVisualState::error),
                                     std::pair(AgentState::idle, VimbrelVisualState::idle),
                                     std::pair(AgentState::stale, VimbrelVisualState::idle)}) {
    EXPECT_EQ(visualStateFor(state), shown);
  }
  EXPECT_EQ(of({AgentState::error, AgentState::waiting}, hold), VimbrelVisualState::waiting);
  EXPECT_EQ(of({AgentState::completed, AgentState::error}, hold), VimbrelVisualState::error);
  EXPECT_EQ(of({AgentState::stale, AgentState::unknown}, hold), VimbrelVisualState::idle);
  EXPECT_EQ(of({AgentState::working}, WakeDecision::release("x")), VimbrelVisualState::working);
  EXPECT_EQ(of({AgentState::working}, WakeDecision::blocked(SafetyBlock::paused)), VimbrelVisualState::error);
}

}  // namespace
}  // namespace vimbrel
