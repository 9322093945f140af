// SPDX-License-Identifier: Apache-2.0
#include "System/ProtectionHistory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

class History : public testing::Test {
 protected:
  void open(std::size_t most = 100) {
    history_.emplace(
        ProtectionHistory::Options{.path = path_,
                                   .mostEpisodes = most,
                                   .isHeld = [this] { return isHeld_; },
                                   .isOnTrial = [this](const std::string& id) { return id == trial_; }},
        time_);
  }
  /// One evaluation a second for the given time.
  void live(double seconds, const WakeDecision& decision, std::vector<AgentType> working = {},
            std::optional<std::int64_t> battery = {}) {
    PolicyEvaluationContext context;
    std::vector<AgentSession> sessions;
    for (const auto agent : working) {
      AgentSession session;
      session.id = std::string(rawValue(agent)) + std::to_string(sessions.size());
      session.agentType = agent;
      session.state = AgentState::working;
      sessions.push_back(session);
    }
    context.sessions = SessionSnapshot::of(sessions);
    context.powerSource.batteryPercent = battery;
    for (double at = 0; at < seconds; ++at) {
      context.now = time_.now();
      // As in the application: a hold is granted, or not, after the decision.
      history_->didDecide(context, context.sessions.entries(), decision);
      isHeld_ = isGranted_ && decision.isHolding();
      history_->didApply(decision, decision);
      time_.advance(std::chrono::seconds{1});
    }
  }
  void idle(double seconds = 1) { live(seconds, WakeDecision::release("No active agent sessions")); }
  void work(double seconds, const std::string& reason, const std::vector<AgentType>& working = {}) {
    live(seconds, WakeDecision::hold(reason, static_cast<int>(working.size()), false), working);
  }
  TemporaryDirectory directory_;
  const std::string path_ = directory_.file("history.jsonl");
  VirtualTime time_{instantFromUnixSeconds(1'800'000'000)};
  std::optional<ProtectionHistory> history_;
  bool isGranted_ = true;  ///< whether a mechanism grants holds
  bool isHeld_ = false;
  std::string trial_;  ///< the session that is a test
};

TEST_F(History, tellsWhatHeldTheMachineAwakeAndWhyItStopped) {
  open();
  live(100, WakeDecision::hold("Claude Code working", 1, true), {AgentType::claude}, 80);
  live(50, WakeDecision::hold("Claude Code, Codex CLI working", 3, false),
       {AgentType::claude, AgentType::claude, AgentType::codex}, 70);
  for (const auto* left : {"30s", "29s"}) {
    live(1, WakeDecision::hold("Release debounce (" + std::string(left) + ")", 0, false));
  }
  live(1, WakeDecision::blocked(SafetyBlock::batteryBelowFloor), {}, 14);
  idle(10);
  work(10, "Manual hold requested");
  const auto episodes = history_->episodes();
  ASSERT_EQ(episodes.size(), 2U);
  const auto& first = episodes[0];
  EXPECT_EQ(first.seconds(), 152);
  EXPECT_EQ(first.ending, EpisodeEnding::blocked);
  EXPECT_EQ(first.block, SafetyBlock::batteryBelowFloor);
  EXPECT_EQ(first.reasons, (std::vector<std::string>{"Claude Code working", "Claude Code, Codex CLI working",
                                                     "Release debounce"}));
  EXPECT_EQ(first.workingSeconds.at(AgentType::claude), 149);
  EXPECT_EQ(first.workingSeconds.at(AgentType::codex), 50);
  ASSERT_EQ(first.counts.size(), 3U);
  EXPECT_EQ(first.counts[1].count, 3);
  EXPECT_TRUE(first.wasDeepHoldWanted);
  EXPECT_EQ(first.batteryAtStart, 80);
  EXPECT_EQ(first.batteryAtEnd, 14);
  EXPECT_EQ(episodes[1].ending, EpisodeEnding::ongoing);
  EXPECT_EQ(history_->episodes(first.endedAt + Seconds{1}).size(), 1U);
  EXPECT_EQ(history_->episodes({}, first.startedAt).size(), 1U);
  const auto totals = totalsOf(episodes);
  EXPECT_EQ(totals.safetyCutoffs, 1);
  EXPECT_EQ(totals.sleepsPrevented.at(AgentType::claude), 1);
}

TEST_F(History, whatWasNotHeldIsNotCountedAsProtected) {
  open();
  const auto asked = [this](double seconds, bool isGranted, AgentType agent) {
    isGranted_ = isGranted;
    work(seconds, "work", {agent});
  };
  asked(32, false, AgentType::codex);
  idle();
  asked(1, true, AgentType::claude);
  idle();
  asked(10, true, AgentType::claude);
  asked(5, false, AgentType::claude);
  asked(5, true, AgentType::claude);
  asked(3, false, AgentType::aider);
  history_->didStop();
  const auto episodes = history_->episodes();
  ASSERT_EQ(episodes.size(), 3U);
  EXPECT_EQ(episodes[0].seconds(), 32);
  EXPECT_EQ(episodes[0].unheldSeconds, 32);
  EXPECT_EQ(episodes[1].unheldSeconds, 0);
  EXPECT_EQ(episodes[2].seconds(), 23);
  EXPECT_EQ(episodes[2].unheldSeconds, 8);
  const auto totals = totalsOf(episodes);
  EXPECT_EQ(totals.episodes, 3);
  EXPECT_EQ(totals.protectedSeconds, 1 + 15);
  EXPECT_EQ(totals.sleepsPrevented,
            (std::map<AgentType, std::int64_t>{{AgentType::claude, 2}, {AgentType::aider, 1}}));
}

TEST_F(History, leavesOutTests) {
  open();
  trial_ = "aider0";
  work(1, "Aider working", {AgentType::aider});
  idle();
  EXPECT_TRUE(history_->episodes().empty()) << "nothing but a test was there";

  work(10, "Manual hold requested");
  trial_ = "aider1";
  work(2, "Aider, Claude Code working", {AgentType::claude, AgentType::aider});
  work(10, "Claude Code working", {AgentType::claude});
  idle();
  trial_ = "aider0";
  work(5, "Aider working", {AgentType::aider, AgentType::aider});
  const auto episodes = history_->episodes();
  ASSERT_EQ(episodes.size(), 2U);
  EXPECT_EQ(episodes[0].workingSeconds, (std::map<AgentType, double>{{AgentType::claude, 12}}));
  EXPECT_EQ(episodes[0].reasons, (std::vector<std::string>{"Manual hold requested", "Claude Code working"}));
  EXPECT_EQ(episodes[0].counts.back().count, 1);
  EXPECT_EQ(episodes[1].counts.front().count, 1);
  EXPECT_EQ(totalsOf(episodes).sleepsPrevented,
            (std::map<AgentType, std::int64_t>{{AgentType::claude, 1}, {AgentType::aider, 1}}));
}

TEST_F(History, aCrashLeavesAnInterruptedEpisodeAndAStopAStoppedOne) {
  open();
  work(150, "Claude Code working", {AgentType::claude});
  open();  // as after a crash: the object before said nothing
  auto episodes = history_->episodes();
  ASSERT_EQ(episodes.size(), 1U);
  EXPECT_EQ(episodes[0].ending, EpisodeEnding::interrupted);
  EXPECT_EQ(episodes[0].seconds(), 120) << "it was last written after two minutes";
  work(10, "Claude Code working", {AgentType::claude});
  history_->didStop();
  open();
  episodes = history_->episodes();
  ASSERT_EQ(episodes.size(), 2U);
  EXPECT_EQ(episodes[1].ending, EpisodeEnding::stopped);
}

TEST_F(History, staysBoundedAndReadsPastTornLines) {
  open(20);
  for (int i = 0; i < 50; ++i) {
    work(1, "x");
    idle();
  }
  EXPECT_LE(history_->episodes().size(), 20U);
  EXPECT_GE(history_->episodes().size(), 10U);
  const auto count = history_->episodes().size();
  std::filesystem::resize_file(path_, std::filesystem::file_size(path_) - 30);
  open(20);
  EXPECT_EQ(history_->episodes().size(), count - 1);
  work(1, "x");
  idle();
  std::ofstream(path_, std::ios::app) << "\nnot json\n{}\n";
  open(20);
  EXPECT_EQ(history_->episodes().size(), count);
}

}  // namespace
}  // namespace vimbrel
