// SPDX-License-Identifier: Apache-2.0
// The relay as agents run it: a process of its own, against a socket of ours.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <future>
#include <thread>

#include "Domain/HookEvent.h"
#include "InstructionCount.h"
#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

const Instant epoch = instantFromUnixSeconds(0);

class Relay : public testing::Test {
 protected:
  void SetUp() override {
    listening_ = std::move(*listenOnUnixSocket(path_, 0600, 8));
    ASSERT_EQ(fcntl(listening_.get(), F_SETFL, 0), 0);
    ASSERT_NE(signal(SIGPIPE, SIG_IGN), SIG_ERR);
  }

  /// Starts the relay with `input` as its standard input.
  pid_t start(std::vector<std::string> arguments, const std::string& input = "", bool withSocket = true) {
    if (withSocket) arguments.insert(arguments.begin(), {"--socket", path_});
    arguments.insert(arguments.begin(), RELAY);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    int in[2];
    int out[2];
    EXPECT_EQ(pipe2(in, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    // As much as a pipe holds waits for the relay, which waits only so long.
    std::size_t written = 0;
    fcntl(in[1], F_SETFL, O_NONBLOCK);
    while (written < input.size()) {
      const auto count = write(in[1], input.data() + written, input.size() - written);
      if (count <= 0) break;
      written += static_cast<std::size_t>(count);
    }
    fcntl(in[1], F_SETFL, 0);
    const std::string home = "HOME=" + directory_.path();
    std::vector<char*> environment{const_cast<char*>(home.c_str()), nullptr};
    pid_t pid = 0;
    EXPECT_EQ(posix_spawn(&pid, RELAY, &actions, nullptr, argv.data(), environment.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    output_.reset(out[0]);
    // The rest beside the answering, because the relay need not read everything; the signal for that is
    // ignored.
    auto end = std::make_shared<Fd>(in[1]);
    if (leavesInputOpen_) openInput_ = end;
    writer_ = std::jthread([text = input.substr(written), end = std::move(end)] {
      for (std::string_view rest = text; !rest.empty();) {
        const auto count = write(end->get(), rest.data(), rest.size());
        if (count <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(count));
      }
    });
    return pid;
  }

  /// The exit status, and what it printed.
  std::pair<int, std::string> finish(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    std::string printed;
    char buffer[4096];
    for (ssize_t got = 0; (got = read(output_.get(), buffer, sizeof buffer)) > 0;) {
      printed.append(buffer, static_cast<std::size_t>(got));
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), printed};
  }

  /// What it sends on the one connection it makes; "none" when it ends without connecting.
  std::string sent(const std::vector<std::string>& arguments, const std::string& input = "") {
    const auto pid = start(arguments, input);
    const auto finished = std::async(std::launch::async, [&] { return finish(pid); });
    std::string bytes = "none";
    for (;;) {
      pollfd readable{listening_.get(), POLLIN, 0};
      if (poll(&readable, 1, 10) > 0) {
        const Fd connection(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC));
        bytes.assign(65537, '\0');
        bytes.resize(static_cast<std::size_t>(recv(connection.get(), bytes.data(), bytes.size(), 0)));
        // On a busy machine too late for the relay, which waits only so long and is content without.
        (void)send(connection.get(), "{\"ok\":true}\n", 12, MSG_NOSIGNAL);
        break;
      }
      if (finished.wait_for(std::chrono::seconds{0}) == std::future_status::ready) break;
    }
    finished.wait();
    return bytes;
  }

  HookEvent event(const std::vector<std::string>& arguments, const std::string& input = "") {
    const auto bytes = sent(arguments, input);
    const auto parsed = HookEvent::parse(bytes, epoch);
    EXPECT_TRUE(parsed) << bytes;
    return parsed.value_or(HookEvent{});
  }

  TemporaryDirectory directory_;
  const std::string path_ = directory_.file("s");
  bool leavesInputOpen_ = false;
  Fd listening_;
  Fd output_;
  std::shared_ptr<Fd> openInput_;
  std::jthread writer_;
};

TEST_F(Relay, turnsItsArgumentsIntoOneEvent) {
  const auto full = event({"--agent",
                           "Codex",
                           "--state",
                           "WORKING",
                           "--session-id",
                           "abc",
                           "-p",
                           "+42",
                           "--cwd",
                           "/x",
                           "--tokens-in",
                           "1200",
                           "--output-tokens",
                           "-5",
                           "--tokens-cache",
                           "7",
                           "--reasoning-tokens",
                           "8",
                           "-m",
                           "gpt-4o",
                           "--turn",
                           "t1",
                           "--unknown",
                           "--agent"});
  HookEvent expected;
  expected.agent = AgentType::codex;
  expected.sessionId = "abc";
  expected.state = AgentState::working;
  expected.timestamp = full.timestamp;
  expected.pid = 42;
  expected.cwd = "/x";
  expected.inputTokens = 1200;
  expected.outputTokens = -5;
  expected.cachedTokens = 7;
  expected.reasoningTokens = 8;
  expected.model = "gpt-4o";
  expected.turnId = "t1";
  EXPECT_EQ(full, expected);
  EXPECT_GT(unixSeconds(full.timestamp), 1.7e9);

  const auto plain = event({"-a", "x", "-s", "idle", "--pid", "abc"});
  EXPECT_EQ(plain.agent, AgentType::custom);
  EXPECT_EQ(plain.pid, getpid()) << "without a usable pid it is the parent's";
  EXPECT_EQ(plain.sessionId, "custom-" + std::to_string(getpid()));
  char directory[4096];
  EXPECT_EQ(plain.cwd, getcwd(directory, sizeof directory));
}

TEST_F(Relay, readsNumbersExactly) {
  struct Case {
    std::string value;
    std::optional<std::int64_t> tokens;
  };
  for (const auto& [value, tokens] : {
           Case{"+3", 3},
           Case{"9223372036854775807", 9223372036854775807},
           Case{"9223372036854775808", {}},
           Case{"+-3", {}},
           Case{"1.5", {}},
           Case{"0x10", {}},
           Case{" 1", {}},
           Case{"", {}},
           Case{"-", {}},
       }) {
    EXPECT_EQ(event({"--agent", "claude", "--input-tokens", value, "--state", "idle"}).inputTokens, tokens)
        << value;
  }
  // A value that does not parse is looked at as an argument of its own.
  EXPECT_EQ(event({"--agent", "claude", "--pid", "--state", "idle"}).state, AgentState::idle);
  EXPECT_EQ(event({"--agent", "claude", "--pid", "2147483648", "--state", "idle"}).pid, getpid());
}

TEST_F(Relay, sendsValidJsonWhateverItIsGiven) {
  const auto odd =
      event({"--agent", "claude", "--state", "idle", "--cwd", "/a\"\\\n\t\x01\xff\xc3", "--session", "é/😀"});
  EXPECT_EQ(odd.cwd, "/a\"\\\n\t\x01\uFFFD\uFFFD");
  EXPECT_EQ(odd.sessionId, "é/😀");
  const auto bytes = sent({"--agent", "claude", "--state", "idle", "--session", "", "--pid", "9"});
  EXPECT_NE(bytes.find(R"("session_id":"")"), std::string::npos);
  EXPECT_EQ(HookEvent::parse(bytes, epoch)->sessionId, "claude-9");
}

TEST_F(Relay, forwardsItsInputWhenAgentOrStateIsMissing) {
  const std::string odd("{not json\0\xff\n", 12);
  EXPECT_EQ(sent({"--agent", "claude"}, odd), odd);
  EXPECT_EQ(sent({"--agent", "claude", "--state"}, "x"), "x");
  EXPECT_EQ(sent({}, std::string(60000, 'y')).size(), 60000U);
  EXPECT_EQ(sent({"--state", "idle"}), "none") << "nothing was read, so nothing is sent";
}

TEST_F(Relay, takesTheSessionFromItsInput) {
  const auto sessionOf = [&](std::vector<std::string> arguments, const std::string& input) {
    arguments.insert(arguments.end(), {"--agent", "claude", "--state", "working", "--pid", "9"});
    return event(arguments, input).sessionId;
  };
  const std::vector<std::string> key{"--session-key", "session_id"};
  const std::string document = R"({"cwd":"/p","tool":{"session_id":"no"},"session_id":"s-1"})";
  EXPECT_EQ(sessionOf(key, document), "s-1");
  EXPECT_EQ(sessionOf({"--session-key", "cwd"}, document), "/p");
  EXPECT_EQ(sessionOf({"--session-key", "session_id", "--session-id", ""}, document), "s-1");
  EXPECT_EQ(sessionOf({"--session-key", "session_id", "--session-id", "given"}, document), "given");
  EXPECT_EQ(sessionOf({}, document), "claude-9") << "without the option the input is left alone";
  for (const auto* unusable : {"", "{}", "[]", "\xff\xfe", R"({"session_id":null})", R"({"session_id":"")"}) {
    EXPECT_EQ(sessionOf(key, unusable), "claude-9") << unusable;
  }
  // A tool's input of many megabytes stands behind the session, or before it.
  const std::string big(std::size_t{4} << 20U, 'x');
  EXPECT_EQ(sessionOf(key, R"({"session_id":"s-2","in":")" + big + "\"}"), "s-2");
  EXPECT_EQ(sessionOf(key, R"({"in":")" + big + R"(","session_id":"s-2"})"), "claude-9");
  leavesInputOpen_ = true;
  EXPECT_EQ(sessionOf(key, R"({"session_id":"s-3")"), "s-3");
  EXPECT_EQ(sessionOf(key, R"({"session)"), "claude-9") << "an end that is never closed is not waited for";
}

TEST_F(Relay, leavesTheProcessOutOnRequest) {
  const std::vector<std::string> report{"--no-pid", "--agent", "cursor", "--state", "idle"};
  EXPECT_EQ(event(report).pid, std::nullopt);
  EXPECT_EQ(event(report).sessionId, "cursor-" + std::to_string(getpid()));
  auto more = report;
  more.insert(more.end(), {"--pid", "7"});
  EXPECT_EQ(event(more).pid, std::nullopt);
  EXPECT_EQ(event(more).sessionId, "cursor-7");
  more.insert(more.end(), {"--session-key", "id"});
  EXPECT_EQ(event(more, R"({"id":"c"})").sessionId, "c");
  EXPECT_EQ(event(more, "{}").sessionId, "cursor-7");
}

TEST_F(Relay, printsOneLineOfHelpAndSendsNothing) {
  const auto pid = start({"--agent", "claude", "--state", "idle", "-h", "--socket"});
  EXPECT_EQ(
      finish(pid),
      std::pair(0, std::string("Usage: vimbrel-relay --agent <name> --state <state> [--session-id <id>] "
                               "[--input-tokens <n>] [--output-tokens <n>] [--cached-tokens <n>] "
                               "[--reasoning-tokens <n>] [--model <model>]\n")));
}

TEST_F(Relay, endsSilentlyWithStatusZeroWhateverHappens) {
  const std::vector<std::string> report{"--agent", "claude", "--state", "working"};
  const auto to = [&](const std::string& socket) {
    auto arguments = report;
    arguments.insert(arguments.end(), {"--socket", socket});
    return arguments;
  };
  const std::pair silent(0, std::string{});
  // It accepts but never answers: the receive time-out ends the wait.
  EXPECT_EQ(finish(start(report)), silent);
  for (const auto& socket :
       {directory_.file("absent"), directory_.path(), std::string(200, 'x'), std::string()}) {
    EXPECT_EQ(finish(start(to(socket), "", false)), silent) << socket;
  }
  // Nothing at the default place below this HOME.
  EXPECT_EQ(finish(start(report, "", false)), silent);
  // The peer closes before reading.
  const auto pid = start(report);
  Fd(accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
  EXPECT_EQ(finish(pid), silent);
}

TEST_F(Relay, staysWithinItsInstructions) {
  const auto count = userInstructions(
      RELAY, {"--agent", "claude", "--state", "working", "--socket", path_, "--session-key", "session_id"});
  if (!count) GTEST_SKIP() << "instructions are not counted here: valgrind is missing or cannot run";
  EXPECT_LT(*count, 80000);
}

}  // namespace
}  // namespace vimbrel
