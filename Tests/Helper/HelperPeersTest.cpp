// SPDX-License-Identifier: Apache-2.0
// What peers may do to the real helper process, and to its server in virtual time.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "DeepHold/HelperExchange.h"
#include "HelperProcess.h"
#include "HelperServer.h"
#include "Simulation/DescriptorQueue.h"
#include "Stranger.h"
#include "Support/AtomicFile.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using namespace std::string_literals;

HelperResponse ask(const HelperProcess& helper, const HelperRequest& request) {
  const auto response = exchangeWithHelper(helper.socketPath(), request);
  EXPECT_TRUE(response) << "the helper did not answer within a second";
  return response.value_or(HelperResponse{});
}

bool isHeld(const HelperProcess& helper) {
  return ask(helper, {}).status.value_or(DeepSleepStatus{}).currentSystemSleepDisabled;
}

/// Sends the bytes as they are and returns what comes back, "" when the connection just ends.
std::string exchangeBytes(const HelperProcess& helper, const std::string& bytes) {
  const auto socket = connectToUnixSocket(helper.socketPath(), 5000);
  if (!socket) return "no connection";
  (void)::send(socket->get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  ::shutdown(socket->get(), SHUT_WR);
  std::string answer(maximumHelperMessageBytes, '\0');
  answer.resize(
      static_cast<std::size_t>(std::max<ssize_t>(0, ::recv(socket->get(), answer.data(), answer.size(), 0))));
  return answer;
}

TEST(HelperPeers, holdRenewAndReleaseAndATerminatedHelperRestores) {
  HelperProcess helper({"--user", "--simulate"});
  EXPECT_FALSE(isHeld(helper));
  // Of the longest ids the worst: every byte takes six in the answer.
  for (const auto& id : {"b\"\u20ac\U0001F4A4"s, std::string(256, '\1')}) {
    EXPECT_TRUE(ask(helper, {HelperCommand::acquire, id, 60}).ok);
    EXPECT_TRUE(ask(helper, {HelperCommand::renew, id, 60}).ok);
    EXPECT_EQ(ask(helper, {}).status.value().activeLeaseId, id);
  }
  EXPECT_TRUE(isHeld(helper));
  EXPECT_EQ(ask(helper, {HelperCommand::release, "B", std::nullopt}).error, "another lease is active");
  EXPECT_EQ(helper.end(SIGTERM), 0);
  EXPECT_EQ(readFile(helper.stateFile()).value(), R"({"isHolding":false,"originalSleepDisabled":false})");
  struct stat status{};
  EXPECT_NE(::stat(helper.socketPath().c_str(), &status), 0) << "the socket is removed";
}

TEST(HelperPeers, sendGarbageAndAreToldSo) {
  HelperProcess helper({"--user", "--simulate"});
  ASSERT_TRUE(ask(helper, {HelperCommand::acquire, "A", 60}).ok);
  for (const auto& bytes :
       {"x"s, "\0\0\0"s, "[1]"s, R"({"command":"acquire"})"s, R"({"command":7})"s,
        "\t\r\n{\"command\" : [[7]]}"s, "{\"command\":\"release\",\"leaseId\":\"\xff\xfe\"}"s,
        std::string(4000, '{'), R"({"command":"acquire","leaseId":"B","ttlSeconds":1e400})"s,
        R"({"command":"status","leaseId":")" + std::string(9000, 'a') + "\"}"}) {
    const auto response = decodeHelperResponse(exchangeBytes(helper, bytes));
    ASSERT_TRUE(response) << bytes.substr(0, 40);
    EXPECT_FALSE(response->ok);
    EXPECT_FALSE(response->error.value_or("").empty());
  }
  EXPECT_EQ(exchangeBytes(helper, "{\"command\":"), "") << "half a request has no answer";
  EXPECT_TRUE(isHeld(helper)) << "nothing of this touched the lease";
}

TEST(HelperPeers, delayNobodyByTheHundredOrWithoutEnd) {
  HelperProcess helper({"--user", "--simulate"});
  std::vector<Fd> halfOpen;
  for (int i = 0; i < 300; ++i) {
    auto socket = connectToUnixSocket(helper.socketPath(), 1000);
    ASSERT_TRUE(socket);
    (void)::send(socket->get(), "{\"comm", i % 7, MSG_NOSIGNAL);
    halfOpen.push_back(std::move(*socket));
    if (i % 30 != 0) continue;
    EXPECT_TRUE(ask(helper, {HelperCommand::acquire, "A", 60}).ok);
  }
  EXPECT_TRUE(isHeld(helper));

  auto greedy = connectToUnixSocket(helper.socketPath(), 1000);
  ASSERT_TRUE(greedy);
  const std::string piece(65536, ' ');
  std::size_t taken = 0;
  for (ssize_t sent = 1; sent > 0 && taken < (1U << 30U);) {
    sent = ::send(greedy->get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    taken += static_cast<std::size_t>(std::max<ssize_t>(sent, 0));
  }
  EXPECT_LT(taken, 1U << 20U) << "the helper hung up long before a gigabyte";
  EXPECT_TRUE(isHeld(helper));
  EXPECT_TRUE(ask(helper, {HelperCommand::release, "A", std::nullopt}).ok);
  EXPECT_EQ(helper.end(SIGTERM), 0);
}

/// Decides when it is told to, as polkit does after a while.
struct SlowAuthority : PeerAuthority {
  void check(const PeerCredentials& /*peer*/, int /*connection*/, Verdict verdict) override {
    asked = std::move(verdict);
  }
  Verdict asked;
};

TEST(HelperPeers, costNothingWhileTheDecisionOnThemIsAwaited) {
  const std::string request = R"({"command":"status"})";
  const std::pair<const char*, std::function<void(Fd&)>> cases[] = {
      {"waits", [](Fd&) {}},
      {"closed its half", [](const Fd& socket) { ::shutdown(socket.get(), SHUT_WR); }},
      {"sent more", [](const Fd& socket) { (void)::send(socket.get(), "more", 4, MSG_NOSIGNAL); }},
      {"went away", [](Fd& socket) { socket.reset(); }},
  };
  for (const auto& [name, then] : cases) {
    const TemporaryDirectory directory;
    VirtualTime time{instantFromReferenceSeconds(1000)};
    const auto queue = std::make_shared<DescriptorQueue>(time.mainQueue());
    const auto authority = std::make_shared<SlowAuthority>();
    int handled = 0;
    const HelperServer server(*listenOnUnixSocket(directory.file("s"), 0600, 4), queue, authority,
                              [&](const HelperRequest&, const PeerCredentials&) {
                                ++handled;
                                return HelperResponse{true, std::nullopt, std::nullopt};
                              });
    const auto connectAndAsk = [&] {
      auto socket = std::move(*connectToUnixSocket(directory.file("s"), 5000));
      (void)::send(socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
      authority->asked = nullptr;
      for (int turn = 0; turn < 100 && !authority->asked && queue->poll(); ++turn) time.runReady();
      then(socket);
      return socket;
    };
    const auto received = [](const Fd& socket) {
      char answer[256];
      return ::recv(socket.get(), answer, sizeof answer, MSG_DONTWAIT);
    };

    auto socket = connectAndAsk();
    ASSERT_TRUE(authority->asked) << name;
    EXPECT_FALSE(queue->poll()) << name << ": the helper is woken though it can do nothing";
    authority->asked(std::nullopt);
    EXPECT_EQ(handled, 1) << name;
    EXPECT_TRUE(!socket || received(socket) > 0) << name;

    // Nobody waits for a decision for longer than two seconds.
    socket = connectAndAsk();
    ASSERT_TRUE(authority->asked) << name;
    time.advance(std::chrono::seconds(2));
    EXPECT_TRUE(!socket || received(socket) == 0 || errno == ECONNRESET) << name;
    EXPECT_FALSE(queue->poll()) << name;
    authority->asked(std::nullopt);
    EXPECT_EQ(handled, 1) << name;
  }
}

TEST(HelperPeers, ofAnotherUserAreRefusedUnlessTheirGroupOwnsTheSocket) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as a second user";
  constexpr gid_t helpersGroup = 60001;
  const auto acquiring = [](const HelperProcess& helper) {
    return [&helper] {
      const auto response = exchangeWithHelper(helper.socketPath(), {HelperCommand::acquire, "A", 60});
      return !response ? 2 : response->ok ? 0 : response->error.value_or("").empty() ? 3 : 1;
    };
  };
  HelperProcess own({"--user", "--simulate"});
  ::chmod(own.directory.path().c_str(), 0755);
  EXPECT_EQ(asUser(stranger, strangersGroup, acquiring(own)), 2) << "the file's mode keeps strangers out";
  ::chmod(own.socketPath().c_str(), 0666);
  EXPECT_EQ(asUser(stranger, strangersGroup, acquiring(own)), 1);
  EXPECT_EQ(asUser(0, 0, acquiring(own)), 0);

  // Without polkit, because there is no bus.
  HelperProcess system({"--simulate"});
  ::chmod(system.directory.path().c_str(), 0755);
  EXPECT_EQ(asUser(stranger, strangersGroup, acquiring(system)), 1);
  // A directory that hands its group down gives the socket that group.
  HelperProcess grouped({"--simulate"}, [](const std::string& directory) {
    EXPECT_EQ(::chown(directory.c_str(), 0, helpersGroup), 0);
    ::chmod(directory.c_str(), 02755);
    return std::vector<Fd>{};
  });
  EXPECT_EQ(asUser(stranger, helpersGroup, acquiring(grouped)), 0);
  EXPECT_EQ(asUser(stranger, strangersGroup, acquiring(grouped)), 1);
}

TEST(HelperPeers, areServedOnASocketThatTheServiceManagerHandsOver) {
  HelperProcess helper({"--user", "--simulate"}, [](const std::string& directory) {
    std::vector<Fd> sockets;
    sockets.push_back(std::move(*listenOnUnixSocket(directory + "/s", 0600, 4)));
    return sockets;
  });
  EXPECT_TRUE(ask(helper, {HelperCommand::acquire, "A", 60}).ok);
  EXPECT_EQ(helper.end(SIGTERM), 0) << helper.log();
  EXPECT_EQ(::access(helper.socketPath().c_str(), F_OK), 0)
      << "the manager's socket is not the helper's to remove";

  for (const auto& [count, type] : {std::pair(2, SOCK_STREAM), {1, SOCK_DGRAM}, {1, SOCK_STREAM}}) {
    HelperProcess misled({"--user", "--simulate"}, [&](const std::string&) {
      std::vector<Fd> sockets;
      for (int i = 0; i < count; ++i)
        sockets.emplace_back(::socket(AF_UNIX, type, 0));  // Nobody listens there.
      return sockets;
    });
    EXPECT_EQ(misled.end(SIGTERM), 1);
    EXPECT_TRUE(misled.log().contains("exactly one listening UNIX stream socket")) << misled.log();
  }
}

TEST(HelperPeers, meetAProcessWithoutAnyPrivilegeToMisuse) {
  HelperProcess helper({"--user", "--simulate"});
  // Its socket is there before it drops its privileges; what it answers, it answers without them.
  EXPECT_FALSE(isHeld(helper));
  std::ifstream file("/proc/" + std::to_string(helper.pid()) + "/status");
  std::map<std::string, std::string> status;
  for (std::string line; std::getline(file, line);) {
    const auto colon = line.find(":\t");
    if (colon != line.npos) status[line.substr(0, colon)] = line.substr(colon + 2);
  }
  for (const auto* set : {"CapInh", "CapPrm", "CapEff", "CapAmb"}) EXPECT_EQ(status[set], "0000000000000000");
  // Only who may set capabilities can empty the bound, and for others it bounds nothing.
  EXPECT_TRUE(::geteuid() != 0 || status["CapBnd"] == "0000000000000000");
  EXPECT_EQ(status["NoNewPrivs"], "1");
  std::ifstream limits("/proc/" + std::to_string(helper.pid()) + "/limits");
  const std::string text{std::istreambuf_iterator<char>(limits), {}};
  EXPECT_TRUE(text.contains("Max core file size        0 ")) << text;
}

}  // namespace
}  // namespace vimbrel
