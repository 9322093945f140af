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

TEST(AgentFamilies, showOneLineForEachAgent) {
  const auto hook = [](AgentState state, int pid) { return session(AgentType::codex, state, pid); };
  const auto process = [](AgentState state, int pid, const char* host = nullptr) {
    return session(AgentType::cursor, state, pid, IntegrationType::process, host);
  };
  struct Case {
    SessionList sessions;
    AgentState state;
    std::int64_t logical;
    std::int64_t processes;
    const char* subtitle;
  };
  const std::vector<Case> cases{
      {{hook(working, 10), hook(waiting, 11)}, working, 2, 2, "2 sessions active"},
      {{hook(error, 1), hook(working, 2)}, error, 2, 2, "2 sessions active"},
      {{hook(completed, 1)}, completed, 1, 1, "1 session active"},
      {{hook(completed, 1), hook(idle, 2)}, idle, 2, 2, "2 processes detected · Idle"},
      // The processes of one host are one session.
      {{process(working, 1), process(working, 2)}, working, 1, 2, "1 session active (2 processes)"},
      {{process(working, 1), process(working, 2, "Zed"), process(working, 3)},
       working,
       2,
       3,
       "2 sessions active (3 processes)"},
      {{process(idle, 1), process(stale, 2)}, idle, 1, 2, "2 processes detected · Idle"},
      {{process(idle, 1)}, idle, 1, 1, "1 process detected · Idle"},
  };
  for (const auto& [sessions, state, logical, processes, subtitle] : cases) {
    const auto families = AgentFamilyPresentation::buildFamilies(sessions, {}, now);
    ASSERT_EQ(families.size(), 1U) << subtitle;
    EXPECT_EQ(families[0].aggregateState, state) << subtitle;
    EXPECT_EQ(families[0].logicalSessionCount, logical) << subtitle;
    EXPECT_EQ(families[0].processCount, processes) << subtitle;
    EXPECT_EQ(families[0].budgetSummaryLine(), subtitle);
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
  std::map<AgentType, ProviderBudgetReport> reports;
  reports[AgentType::codex].lastUpdated = now - Seconds{600};
  reports[AgentType::opencode].lastUpdated = now - Seconds{7200};
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
  EXPECT_EQ(visualStateFor(completed), VimbrelVisualState::completed);
  for (const auto state : {idle, stale, unknown}) EXPECT_EQ(visualStateFor(state), VimbrelVisualState::idle);
  EXPECT_EQ(of({error, waiting}, hold), VimbrelVisualState::waiting);
  EXPECT_EQ(of({completed, error}, hold), VimbrelVisualState::error);
  EXPECT_EQ(of({stale, unknown}, hold), VimbrelVisualState::idle);
  EXPECT_EQ(of({working}, WakeDecision::release("x")), VimbrelVisualState::working);
  EXPECT_EQ(of({working}, WakeDecision::blocked(SafetyBlock::paused)), VimbrelVisualState::error);
}

}  // namespace
}  // namespace vimbrel
