// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <future>
#include <thread>

#include "Control/ControlClient.h"
#include "Control/RpcResult.h"
#include "Stranger.h"
#include "Support/EventLoop.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

/// A server whose main queue runs on a thread of its own, so that the test can block as a client does.
class RunningServer {
 public:
  explicit RunningServer(ControlLimits limits = {}, std::size_t fillerBytes = 0)
      : server_(loop_.mainQueue(), clock_, limits) {
    server_.methods().add("echo", [](const json& params) -> RpcResult { return params; });
    server_.methods().add("large", [](const json& params) -> RpcResult {
      return json(std::string(params.value("bytes", std::size_t{0}), 'x'));
    });
    server_.methods().addLater("later", [this](const json&, RpcReply reply) {
      held_ = std::make_unique<RpcReply>(std::move(reply));
    });
    server_.setState(
        [this, filler = std::string(fillerBytes, 'f')] {
          return json{{"number", number_}, {"seconds", ++seconds_}, {"filler", filler}};
        },
        {"seconds"});
    EXPECT_TRUE(server_.start(path()));
    thread_ = std::thread([this] { loop_.run(); });
  }
  ~RunningServer() {
    std::promise<void> stopped;
    loop_.mainQueue()->post([&] {
      server_.stop();
      stopped.set_value();
    });
    stopped.get_future().wait();
    loop_.stop();
    thread_.join();
  }

  template <typename Body>
  auto onQueue(Body body) {
    std::packaged_task<decltype(body())()> task(std::move(body));
    auto result = task.get_future();
    loop_.mainQueue()->post([&task] { task(); });
    return result.get();
  }
  [[nodiscard]] std::string path() const { return directory_.file("run/control.sock"); }
  [[nodiscard]] ControlClient client() const {
    auto client = ControlClient::connect(path());
    EXPECT_TRUE(client) << client.error().text;
    return std::move(*client);
  }
  [[nodiscard]] Fd rawConnection() const {
    auto socket = connectToUnixSocket(path(), 10000);
    EXPECT_TRUE(socket);
    return std::move(*socket);
  }
  void setNumber(int number) {
    onQueue([=, this] {
      number_ = number;
      server_.stateDidChange();
    });
  }
  std::size_t connections() {
    return onQueue([this] { return server_.connectionCount(); });
  }
  bool answerHeldRequest() {
    return onQueue([this] {
      if (!held_) return false;
      (*held_)(RpcResult(json("done")));
      held_.reset();
      return true;
    });
  }

 private:
  TemporaryDirectory directory_;
  SystemClock clock_;
  EventLoop loop_;
  ControlServer server_;
  std::unique_ptr<RpcReply> held_;
  int number_ = 0;
  int seconds_ = 0;
  std::thread thread_;
};

void sendAll(const Fd& socket, std::string_view text) {
  while (!text.empty()) {
    const auto count = ::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (count <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

/// Everything up to the end of a line or of the connection. Looks before it takes, so that what follows the
/// line stays in the socket.
std::string receiveLine(const Fd& socket) {
  std::string line;
  char buffer[65536];
  while (true) {
    const auto seen = ::recv(socket.get(), buffer, sizeof buffer, MSG_PEEK);
    if (seen <= 0) return line;
    const std::string_view text(buffer, static_cast<std::size_t>(seen));
    const auto end = text.find('\n');
    const auto taken = end == std::string_view::npos ? text.size() : end + 1;
    if (::recv(socket.get(), buffer, taken, 0) != static_cast<ssize_t>(taken)) return line;
    line += text.substr(0, end);
    if (end != std::string_view::npos) return line;
  }
}

template <typename Condition>
bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + 20s;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(1ms);
  }
  return false;
}

constexpr std::string_view echoRequest = R"({"jsonrpc":"2.0","id":1,"method":"echo"})";
constexpr std::string_view echoAnswer = R"({"id":1,"jsonrpc":"2.0","result":{}})";

TEST(ControlServer, isForItsOwnUserOnly) {
  const RunningServer server;
  struct stat status{};
  ASSERT_EQ(::stat(server.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  ASSERT_EQ(::stat(server.path().substr(0, server.path().rfind('/')).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST(ControlServer, hangsUpOnAnotherUserWhateverThePermissionsSay) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as a second user";
  RunningServer server;
  const auto asks = [&server] {
    const auto socket = connectToUnixSocket(server.path(), 10000);
    if (!socket) return 2;
    sendAll(*socket, std::string(echoRequest) + "\n");
    return receiveLine(*socket).empty() ? 1 : 0;
  };
  EXPECT_EQ(asUser(stranger, strangersGroup, asks), 2) << "the permissions keep strangers out";
  const auto run = server.path().substr(0, server.path().rfind('/'));
  ::chmod(run.c_str(), 0755);
  ::chmod(run.substr(0, run.rfind('/')).c_str(), 0755);
  ::chmod(server.path().c_str(), 0666);
  EXPECT_EQ(asUser(stranger, strangersGroup, asks), 1) << "and so does the server";
  EXPECT_EQ(asUser(0, 0, asks), 0);
}

TEST(ControlServer, answersLinesHoweverTheyArrive) {
  RunningServer server;
  const auto socket = server.rawConnection();
  for (const char byte : echoRequest) sendAll(socket, {&byte, 1});
  sendAll(socket, "\r\n");
  EXPECT_EQ(receiveLine(socket), echoAnswer);
  sendAll(socket, "\n\ngarbage\n" + std::string(echoRequest));
  ::shutdown(socket.get(), SHUT_WR);  // The last line has no end and is answered all the same.
  EXPECT_TRUE(receiveLine(socket).contains("-32700"));
  EXPECT_EQ(receiveLine(socket), echoAnswer);
  EXPECT_EQ(receiveLine(socket), "");
  EXPECT_TRUE(eventually([&] { return server.connections() == 0; }));
}

TEST(ControlServer, dropsAPeerWhoseLineIsTooLongAndServesTheOthers) {
  RunningServer server({.maximumRequestBytes = 1000});
  auto other = server.client();
  for (const bool ended : {false, true}) {
    const auto socket = server.rawConnection();
    sendAll(socket, std::string(5000, '[') + (ended ? "\n" : ""));
    // With bytes of its own unread, the server's side may be reset before the explanation is read.
    const auto line = receiveLine(socket);
    EXPECT_TRUE(line.empty() || line.contains("longer than 1000 bytes")) << line;
    EXPECT_TRUE(eventually([&] { return server.connections() == 1; }));
  }
  EXPECT_EQ(other.call("echo", {{"a", 1}}).value(), json({{"a", 1}}));
}

TEST(ControlServer, aPeerThatReadsNothingHoldsNobodyUpAndCostsOneAnswer) {
  RunningServer server;
  const auto greedy = server.rawConnection();
  std::string requests;
  for (int i = 0; i < 20; ++i) {
    requests +=
        json{{"jsonrpc", "2.0"}, {"id", i}, {"method", "large"}, {"params", {{"bytes", 300000}}}}.dump() +
        "\n";
  }
  sendAll(greedy, requests);
  auto other = server.client();
  for (int i = 0; i < 20; ++i) EXPECT_TRUE(other.call("echo", json::object()));
  // When it reads at last, every answer is there, in order.
  for (int i = 0; i < 20; ++i) {
    const auto answer = json::parse(receiveLine(greedy));
    ASSERT_EQ(answer["id"], i);
    ASSERT_EQ(answer["result"].get_ref<const std::string&>().size(), 300000U);
  }
}

TEST(ControlServer, answersLateWhetherTheClientHasGoneOnOrAway) {
  RunningServer server;
  auto client = server.client();
  EXPECT_EQ(client.call("later", json::object(), 1ms).error().fault, ControlClientError::Fault::timedOut);
  ASSERT_TRUE(eventually([&] { return server.answerHeldRequest(); }));
  EXPECT_EQ(client.call("echo", {{"b", 2}}).value(), json({{"b", 2}}));
  sendAll(server.rawConnection(), R"({"jsonrpc":"2.0","id":1,"method":"later"})"
                                  "\n");
  ASSERT_TRUE(eventually([&] { return server.answerHeldRequest(); }));
  EXPECT_TRUE(client.call("echo", json::object()));
}

TEST(ControlServer, streamsStatesThatDifferAndNoOthers) {
  RunningServer server;
  auto first = server.client();
  ASSERT_TRUE(first.call("subscribe", json::object()));
  EXPECT_EQ(first.nextNotification(20s).value()["number"], 0);
  server.setNumber(0);  // Nothing but the volatile key differs.
  server.setNumber(1);
  EXPECT_EQ(first.nextNotification(20s).value()["number"], 1);
  server.setNumber(2);
  // A newcomer begins with the state as it is, which the older subscriber must not miss for it.
  auto second = server.client();
  ASSERT_TRUE(second.call("subscribe", json::object()));
  EXPECT_EQ(second.nextNotification(20s).value()["number"], 2);
  EXPECT_EQ(first.nextNotification(20s).value()["number"], 2);
  ASSERT_TRUE(first.call("unsubscribe", json::object()));
  server.setNumber(3);
  EXPECT_EQ(second.nextNotification(20s).value()["number"], 3);
  EXPECT_EQ(first.nextNotification(0ms).error().fault, ControlClientError::Fault::timedOut);
}

TEST(ControlServer, aSubscriberThatFallsBehindGetsTheLatestState) {
  RunningServer server({.stateInterval = 0ms}, 300000);  // More than a socket takes at once.
  auto client = server.client();
  ASSERT_TRUE(client.call("subscribe", json::object()));
  for (int i = 1; i <= 60; ++i) server.setNumber(i);
  int received = 0;
  int last = -1;
  while (last != 60) {
    const auto state = client.nextNotification(20s);
    ASSERT_TRUE(state) << state.error().text << " after " << last;
    ASSERT_GT((*state)["number"], last);
    last = (*state)["number"];
    ++received;
  }
  EXPECT_LE(received, 5);
}

TEST(ControlServer, dropsPeersThatStallOrIdle) {
  RunningServer server({.stalledWrite = 0s, .idle = 0s, .checkInterval = 10ms});
  const auto idle = server.rawConnection();
  EXPECT_EQ(receiveLine(idle), "");  // Closed by the server; the client's own time-out is longer.
  EXPECT_TRUE(eventually([&] { return server.connections() == 0; }));
}

}  // namespace
}  // namespace vimbrel
