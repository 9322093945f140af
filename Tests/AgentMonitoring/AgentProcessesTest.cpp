// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/AgentProcesses.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "AgentMonitoring/CoordinatorWorld.h"
#include "CapturedLog.h"
#include "Platform/Linux/ProcAncestry.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

TEST(AgentProgram, isRecognisedByItsNameAndIsNeverAShell) {
  struct Case {
    AgentType agent;
    const char* command;
    bool is;
  };
  using enum AgentType;
  for (const auto& [agent, command, is] : {
           Case{claude, "claude", true},
           Case{claude, "/home/u/.local/bin/claude --resume", true},
           Case{claude, "node /home/u/.npm/lib/node_modules/@anthropic-ai/claude-code/cli.js", true},
           Case{claude, "node --max-old-space-size=4096 /usr/bin/claude", true},
           Case{codex, "/opt/codex-x86_64-unknown-linux-musl exec fix", true},
           Case{gemini, "node /usr/lib/node_modules/@google/gemini-cli/dist/index.js", true},
           Case{aider, "/usr/bin/python3.11 /home/u/.local/bin/aider --model x", true},
           Case{cursor, "/opt/Cursor/cursor --type=zygote", true},
           Case{claude, "sh -c vimbrel-relay --agent claude --state working", false},
           Case{claude, "/bin/bash /home/u/claude", false},
           Case{claude, "-zsh", false},
           Case{claude, "vim claude", false},
           Case{claude, "claudette", false},
           Case{claude, "node /home/u/server.js claude", false},
           Case{codex, "claude", false},
           Case{claude, "vimbrel-relay --agent claude", false},
           Case{claude, "", false},
           Case{claude, "python3", false},
           Case{custom, "custom", false},
       }) {
    EXPECT_EQ(isAgentProgram(agent, command), is) << command;
  }
}

/// A made-up process tree, from the sender upwards.
struct FakeTree final : ProcessAncestry {
  std::vector<AncestorProcess> ancestorsOf(std::int32_t) override { return ++looks, chain; }
  bool isAlive(const ProcessIdentity& process) override {
    return std::ranges::find(dead, process) == dead.end();
  }
  std::vector<AncestorProcess> chain;
  std::vector<ProcessIdentity> dead;
  int looks = 0;
};

const AncestorProcess relay{{500, 50}, "vimbrel-relay --agent claude", Seconds{0}};
const AncestorProcess shell{{400, 40}, "sh -c vimbrel-relay --agent claude", Seconds{0}};
const AncestorProcess old{{300, 30}, "claude", Seconds{300}};
const AncestorProcess young{{310, 31}, "claude", Seconds{2}};

struct AgentProcessesTest : testing::Test {
  VirtualTime time{at(1000)};
  std::shared_ptr<FakeTree> tree = std::make_shared<FakeTree>();
  AgentProcesses processes{tree, time};
  using Ended = std::vector<std::string>;

  /// An event from a process with these ancestors, long enough after the one before.
  void hear(std::vector<AncestorProcess> chain, AgentState state = AgentState::working) {
    tree->chain = std::move(chain);
    time.advance(6s);
    processes.heard(event("s", AgentType::claude, state, 1000), 500);
  }
  /// Which sessions end with these processes, all others being alive.
  Ended endedBy(std::vector<ProcessIdentity> dead) {
    tree->dead = std::move(dead);
    return processes.takeEnded();
  }
};

TEST_F(AgentProcessesTest, tellsOfTheEndOfAnAgentThatHasLasted) {
  hear({relay, shell, old});
  EXPECT_EQ(endedBy({}), Ended{});
  EXPECT_EQ(endedBy({relay.identity, shell.identity}), Ended{}) << "these come and go";
  EXPECT_EQ(endedBy({relay.identity, shell.identity, old.identity}), Ended{"s"});
  EXPECT_EQ(endedBy({old.identity}), Ended{}) << "once";
}

TEST_F(AgentProcessesTest, doesNotMistakeAHelperOfTheMomentForTheAgent) {
  hear({relay, young});
  EXPECT_EQ(endedBy({young.identity}), Ended{});
  // The same young process in two events seconds apart is no helper.
  hear({relay, young});
  hear({relay, young});
  EXPECT_EQ(endedBy({young.identity}), Ended{"s"});
  // Inside an agent that runs an agent, the end of the outer one counts.
  const AncestorProcess inner{{320, 32}, "claude -p", Seconds{100}};
  hear({relay, inner, old});
  EXPECT_EQ(endedBy({inner.identity}), Ended{});
}

TEST_F(AgentProcessesTest, leavesAloneWhatItCannotKnow) {
  const AncestorProcess server{{200, 20}, "/usr/sbin/sshd", Seconds{9000}};
  hear({relay, shell, server});
  EXPECT_EQ(endedBy({server.identity}), Ended{}) << "nobody but the agent itself tells of its end";
  hear({relay, old});
  hear({relay, old}, AgentState::completed);
  EXPECT_EQ(endedBy({old.identity}), Ended{}) << "it has said so itself";
  hear({relay, old});
  hear({relay, {{600, 60}, "claude", Seconds{100}}});
  EXPECT_EQ(endedBy({old.identity}), Ended{}) << "the session was resumed elsewhere";
}

TEST_F(AgentProcessesTest, looksAtProcessesSeldomAndStaysBounded) {
  tree->chain = {relay, old};
  for (int i = 0; i < 1000; ++i)
    processes.heard(event("s", AgentType::claude, AgentState::working, 1000), 500);
  EXPECT_EQ(tree->looks, 1);
  for (int i = 0; i < 2000; ++i) {
    processes.heard(event("s" + std::to_string(i), AgentType::claude, AgentState::working, 1000), 500);
    time.advance(1ms);
  }
  EXPECT_EQ(endedBy({old.identity}).size(), AgentProcesses::mostSessions);
}

/// A process called "claude" that runs a shell which waits, as an agent runs a hook.
struct RealAgent {
  RealAgent() {
    int ends[2];
    EXPECT_EQ(::pipe(ends), 0);
    pid = ::fork();
    if (pid == 0) {
      // The shell below tells its process id, then both wait for their end.
      ::dup2(ends[1], STDOUT_FILENO);
      ::execl("/bin/bash", "claude", "-c", "/bin/sh -c 'echo $$; exec sleep 1000 >/dev/null'; :", nullptr);
      ::_exit(127);
    }
    ::close(ends[1]);
    char text[32]{};
    EXPECT_GT(::read(ends[0], text, sizeof text - 1), 0);
    ::close(ends[0]);
    sender = std::atoi(text);
  }
  void end() {
    if (pid <= 0) return;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::kill(sender, SIGKILL);
    pid = -1;
  }
  ~RealAgent() { end(); }
  pid_t pid = -1;
  pid_t sender = -1;
};

TEST(AgentProcessesOnThisMachine, turnTheSessionOfAKilledAgentStaleAtTheNextSweep) {
  const CapturedLog quiet;
  CoordinatorWorld world;
  const auto processes = std::make_shared<AgentProcesses>(std::make_shared<ProcAncestry>(), world.time);
  world.coordinator.setAgentProcesses(processes);
  RealAgent agent;
  RealAgent other;
  for (int i = 0; i < 2; ++i) {
    for (const auto& [id, sender] : {std::pair("s", agent.sender), std::pair("other", other.sender)}) {
      const auto sent = event(id, AgentType::claude, AgentState::working, 1000);
      processes->heard(sent, sender);
      world.coordinator.didReceiveHookEvent(sent);
    }
    world.time.advance(6s);
  }
  world.coordinator.sweepStaleSessions(world.time.now());
  EXPECT_EQ(world.session("s").state, AgentState::working);
  agent.end();
  world.coordinator.sweepStaleSessions(world.time.now());
  EXPECT_EQ(world.session("s").state, AgentState::stale);
  EXPECT_EQ(world.session("other").state, AgentState::working);
  EXPECT_FALSE(world.coordinator.lastActiveAgentStoppedAt());
  other.end();
  world.coordinator.sweepStaleSessions(world.time.now());
  EXPECT_EQ(world.coordinator.lastActiveAgentStoppedAt(), world.time.now());
}

}  // namespace
}  // namespace vimbrel
