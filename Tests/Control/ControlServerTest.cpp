// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <future>
#include <sstream>

#include "CapturedLog.h"
#include "Control/RpcResult.h"
#include "Simulation/DescriptorQueue.h"
#include "Stranger.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

void send(const Fd& socket, std::string_view text) {
  ASSERT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

std::string request(const std::string& method, int id = 1) {
  return json{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}}.dump() + "\n";
}
const std::string echo = request("echo");
const std::string echoed = "{\"id\":1,\"jsonrpc\":\"2.0\",\"result\":{}}\n";

/// A server in virtual time, with both ends of its connections in one thread.
struct Serving {
  explicit Serving(ControlLimits limits = {}) : server(queue, time, limits) {
    server.methods().add("echo", [](const json& params) -> RpcResult { return params; });
    server.methods().add("large", [](const json&) -> RpcResult { return json(std::string(300000, 'x')); });
    server.methods().addLater("later", [this](const json&, RpcReply reply) {
      held = std::make_unique<RpcReply>(std::move(reply));
    });
    server.setState([this] { return json{{"number", number}, {"seconds", ++seconds}, {"filler", filler}}; },
                    {"seconds"});
    EXPECT_TRUE(server.start(path));
  }
  /// Everybody does what can be done now.
  void turn() {
    time.runReady();
    while (queue->poll()) time.runReady();
  }
  [[nodiscard]] Fd connect() {
    auto socket = connectToUnixSocket(path, 10000);
    EXPECT_TRUE(socket);
    turn();
    return std::move(*socket);
  }
  /// Everything that comes, taken as fast as it does; "(end)" is the end of the connection.
  std::string received(const Fd& socket) {
    std::string text;
    char buffer[65536];
    while (true) {
      turn();
      const auto count = ::recv(socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
      if (count <= 0) return text + (count < 0 && errno == EAGAIN ? "" : "(end)");
      text.append(buffer, static_cast<std::size_t>(count));
    }
  }
  std::string answer(const Fd& socket, std::string_view text) {
    send(socket, text);
    return received(socket);
  }
  void setNumber(int next) {
    number = next;
    server.stateDidChange();
    time.advance(1s);
  }
  /// The numbers of the states that have come.
  std::vector<int> states(const Fd& socket) {
    std::istringstream lines(received(socket));
    std::vector<int> numbers;
    for (std::string line; std::getline(lines, line);) {
      const auto message = json::parse(line);
      if (message.contains("params")) numbers.push_back(message["params"]["number"]);
    }
    return numbers;
  }

  TemporaryDirectory directory;
  const std::string run = directory.file("run");
  const std::string path = run + "/control.sock";
  VirtualTime time{instantFromReferenceSeconds(0)};
  std::shared_ptr<DescriptorQueue> queue = std::make_shared<DescriptorQueue>(time.mainQueue());
  std::unique_ptr<RpcReply> held;
  int number = 0;
  int seconds = 0;
  std::string filler;
  ControlServer server;
};

TEST(ControlServer, isForItsOwnUserOnly) {
  const Serving serving;
  struct stat status{};
  ASSERT_EQ(::stat(serving.path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(::stat(serving.run.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST(ControlServer, hangsUpOnAnotherUserWhateverThePermissionsSay) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as a second user";
  const CapturedLog quiet;
  Serving serving;
  const auto asks = [&](uid_t user, gid_t group) {
    auto status = std::async(std::launch::async, [&] {
      return asUser(user, group, [&] {
        const auto socket = connectToUnixSocket(serving.path, 10000);
        if (!socket) return 2;
        (void)::send(socket->get(), echo.data(), echo.size(), MSG_NOSIGNAL);
        char byte = 0;
        return ::recv(socket->get(), &byte, 1, 0) > 0 ? 0 : 1;
      });
    });
    while (status.wait_for(1ms) != std::future_status::ready) serving.turn();
    return status.get();
  };
  EXPECT_EQ(asks(stranger, strangersGroup), 2) << "the permissions keep strangers out";
  for (const auto& entry : {serving.run, serving.directory.path()}) ::chmod(entry.c_str(), 0755);
  ::chmod(serving.path.c_str(), 0666);
  EXPECT_EQ(asks(stranger, strangersGroup), 1) << "and so does the server";
  EXPECT_EQ(asks(0, 0), 0);
}

TEST(ControlServer, answersLinesHoweverTheyArrive) {
  Serving serving;
  const auto socket = serving.connect();
  for (const char byte : echo.substr(0, echo.size() - 1)) EXPECT_EQ(serving.answer(socket, {&byte, 1}), "");
  EXPECT_EQ(serving.answer(socket, "\r\n"), echoed);
  send(socket, "\n\ngarbage\n" + echo.substr(0, echo.size() - 1));
  ::shutdown(socket.get(), SHUT_WR);  // The last line has no end and is answered all the same.
  const auto rest = serving.received(socket);
  EXPECT_TRUE(rest.contains("-32700")) << rest;
  EXPECT_TRUE(rest.ends_with(echoed + "(end)")) << rest;
  EXPECT_EQ(serving.server.connectionCount(), 0U);
}

TEST(ControlServer, dropsAPeerWhoseLineIsTooLongAndServesTheOthers) {
  Serving serving({.maximumRequestBytes = 1000});
  const auto other = serving.connect();
  for (const auto* end : {"", "\n"}) {
    const auto socket = serving.connect();
    const auto said = serving.answer(socket, std::string(5000, '[') + end);
    EXPECT_TRUE(said.contains("longer than 1000 bytes") && said.ends_with("(end)")) << said;
    EXPECT_EQ(serving.server.connectionCount(), 1U);
  }
  EXPECT_EQ(serving.answer(other, echo), echoed);
}

TEST(ControlServer, aPeerThatReadsNothingHoldsNobodyUpAndCostsOneAnswer) {
  Serving serving;
  const auto greedy = serving.connect();
  for (int id = 0; id < 20; ++id) send(greedy, request("large", id));
  serving.turn();
  EXPECT_EQ(serving.answer(serving.connect(), echo), echoed);
  // When it reads at last, every answer is there, in order.
  std::istringstream answers(serving.received(greedy));
  int id = 0;
  for (std::string line; std::getline(answers, line); ++id) {
    const auto answer = json::parse(line);
    EXPECT_EQ(answer["id"], id);
    EXPECT_EQ(answer["result"].get_ref<const std::string&>().size(), 300000U);
  }
  EXPECT_EQ(id, 20);
}

TEST(ControlServer, answersLateWhetherTheClientHasGoneOnOrAway) {
  Serving serving;
  auto socket = serving.connect();
  for (const bool goesAway : {false, true}) {
    EXPECT_EQ(serving.answer(socket, request("later", 7)), "");
    ASSERT_TRUE(serving.held);
    if (goesAway) socket.reset();
    serving.turn();
    (*serving.held)(RpcResult(json("done")));
    serving.held.reset();
    if (!goesAway) {
      EXPECT_TRUE(serving.received(socket).contains("done"));
    }
  }
  EXPECT_EQ(serving.answer(serving.connect(), echo), echoed);
}

TEST(ControlServer, streamsStatesThatDifferAndNoOthers) {
  using Numbers = std::vector<int>;
  Serving serving;
  const auto first = serving.connect();
  send(first, request("subscribe"));
  EXPECT_EQ(serving.states(first), Numbers{0});
  serving.setNumber(0);  // Nothing but the volatile key differs.
  EXPECT_EQ(serving.states(first), Numbers{});
  serving.setNumber(1);
  EXPECT_EQ(serving.states(first), Numbers{1});
  serving.number = 2;
  serving.server.stateDidChange();
  // A newcomer begins with the state as it is, which the older subscriber must not miss for it.
  const auto second = serving.connect();
  send(second, request("subscribe"));
  EXPECT_EQ(serving.states(second), Numbers{2});
  serving.time.advance(1s);
  EXPECT_EQ(serving.states(first), Numbers{2});
  EXPECT_NE(serving.answer(first, request("unsubscribe")), "");
  serving.setNumber(3);
  EXPECT_EQ(serving.states(second), Numbers{3});
  EXPECT_EQ(serving.states(first), Numbers{});
}

TEST(ControlServer, aSubscriberThatFallsBehindGetsTheLatestState) {
  Serving serving;
  serving.filler.assign(300000, 'f');  // More than a socket takes at once.
  const auto socket = serving.connect();
  send(socket, request("subscribe"));
  serving.turn();
  for (int i = 1; i <= 20; ++i) serving.setNumber(i);
  const auto states = serving.states(socket);
  ASSERT_FALSE(states.empty());
  EXPECT_LE(states.size(), 3U);
  EXPECT_EQ(states.back(), 20);
}

TEST(ControlServer, dropsPeersThatStallOrIdle) {
  Serving serving({.stalledWrite = 30s, .idle = 60s, .checkInterval = 1000ms});
  const auto idle = serving.connect();
  auto subscriber = serving.connect();
  send(subscriber, request("subscribe"));
  const auto stalled = serving.connect();
  send(stalled, request("large"));
  serving.turn();
  const auto aliveAfter = [&](std::chrono::seconds time) {
    serving.time.advance(time);
    serving.turn();
    return serving.server.connectionCount();
  };
  EXPECT_EQ(aliveAfter(29s), 3U);
  EXPECT_EQ(aliveAfter(3s), 2U);
  EXPECT_EQ(aliveAfter(26s), 2U);
  EXPECT_EQ(aliveAfter(4s), 1U);
  EXPECT_EQ(serving.received(idle), "(end)");
  ::shutdown(subscriber.get(), SHUT_WR);
  EXPECT_EQ(aliveAfter(2s), 1U) << "it listens on";
  subscriber.reset();
  EXPECT_EQ(aliveAfter(2s), 0U);
}

}  // namespace
}  // namespace vimbrel
