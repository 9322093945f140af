// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlClient.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <future>
#include <nlohmann/json.hpp>
#include <thread>

#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Fault = ControlClientError::Fault;

/// Long enough for any machine; nothing here takes it, because what is expected comes at once.
constexpr auto patience = 60s;

/// A client, and the other end of its connection with somebody else than Vimbrel at it.
struct Conversation {
  Conversation() {
    const auto path = directory.file("s");
    const auto listener = listenOnUnixSocket(path, 0600, 1);
    client.emplace(ControlClient::connect(path, patience).value());
    peer = Fd(::accept4(listener->get(), nullptr, nullptr, SOCK_CLOEXEC));
  }

  /// Says all of it while the client listens, and leaves.
  [[nodiscard]] std::jthread say(std::string text) {
    return std::jthread([this, text = std::move(text)] {
      for (std::size_t sent = 0; sent < text.size();) {
        const auto count = ::send(peer.get(), text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<std::size_t>(count);
      }
      ::shutdown(peer.get(), SHUT_RDWR);
    });
  }

  TemporaryDirectory directory;
  std::optional<ControlClient> client;
  Fd peer;
};

TEST(ControlClient, takesNothingButItsAnswerForItsAnswer) {
  const std::string answer = R"({"jsonrpc":"2.0","id":1,"result":{"a":1}})";
  struct Case {
    std::string said;
    std::optional<Fault> fault;  ///< none: the result {"a":1}
    std::string text;
  };
  // Every peer leaves when it has said its words.
  const std::vector<Case> cases{
      {answer + "\n"},
      {R"({"jsonrpc":"2.0","method":"state","params":{"n":1}})" + ("\n" + answer) + "\n"},
      {R"({"id":0,"result":{"late":true}})" + ("\n" + answer) + "\n"},
      {"{\"id\":1,\"error\":{\"code\":7,\"message\":\"no such thing\"}}\n", Fault::refused, "no such thing"},
      {"{\"id\":null,\"error\":{\"code\":7,\"message\":\"too many\"}}\n", Fault::refused, "too many"},
      {"{\"id\":1,\"error\":{\"code\":\"7\",\"message\":\"m\"}}\n", Fault::unreadable, "unreadable"},
      {"{\"id\":1,\"error\":{\"code\":7}}\n", Fault::unreadable, "unreadable"},
      {"{\"id\":1}\n", Fault::unreadable, "unreadable"},
      {"[]\n", Fault::unreadable, "not a JSON object"},
      {"HTTP/1.1 200 OK\n", Fault::unreadable, "not a JSON object"},
      {"", Fault::disconnected, "closed the connection"},
      {answer, Fault::disconnected, "closed the connection"},
      {std::string((64U << 20U) + 1, ' '), Fault::unreadable, "too long"},
  };
  for (const auto& [said, fault, text] : cases) {
    const auto name = said.substr(0, 80);
    Conversation conversation;
    auto speaker = conversation.say(said);
    if (said.size() < 1000) speaker.join();  // Gone before it is asked, as a server that takes no more is.
    const auto result = conversation.client->call("m", json::object(), patience);
    ::shutdown(conversation.peer.get(), SHUT_RDWR);  // Whoever still speaks is let go.
    ASSERT_EQ(result.has_value(), !fault) << name;
    if (!fault) {
      EXPECT_EQ(*result, (json{{"a", 1}})) << name;
      continue;
    }
    EXPECT_EQ(result.error().fault, *fault) << name;
    EXPECT_TRUE(result.error().text.contains(text)) << result.error().text;
    EXPECT_EQ(result.error().code, *fault == Fault::refused ? 7 : 0) << name;
  }
}

TEST(ControlClient, waitsForSilenceNoLongerThanItIsTold) {
  Conversation conversation;
  const auto silent = conversation.client->call("m", json::object(), 0ms);
  ASSERT_FALSE(silent);
  EXPECT_EQ(silent.error().fault, Fault::timedOut);
  EXPECT_EQ(conversation.client->nextNotification(0ms).error().fault, Fault::timedOut);
  // More than a socket takes from one that writes to somebody who does not read.
  const auto large = conversation.client->call("m", {{"text", std::string(2U << 20U, 'x')}}, 0ms);
  ASSERT_FALSE(large);
  EXPECT_EQ(large.error().fault, Fault::timedOut);
}

TEST(ControlClient, keepsTheNewestStatesThatComeBeforeAnAnswer) {
  Conversation conversation;
  std::string said;
  for (int number = 0; number < 20; ++number) {
    said += json{{"method", "state"}, {"params", {{"n", number}}}}.dump() + "\n";
  }
  said += "{\"id\":1,\"result\":{}}\n{\"id\":1,\"result\":{\"again\":true}}\n";
  said += "{\"method\":\"state\",\"params\":{\"n\":20}}\n";
  const auto speaker = conversation.say(said);
  ASSERT_TRUE(conversation.client->call("m", json::object(), patience));
  for (int number = 4; number <= 20; ++number) {
    EXPECT_EQ(conversation.client->nextNotification(patience).value(), (json{{"n", number}}));
  }
  EXPECT_EQ(conversation.client->nextNotification(patience).error().fault, Fault::disconnected);
}

TEST(ControlClient, tellsWhoIsNotThereFromWhoIsBusy) {
  const TemporaryDirectory directory;
  const auto path = directory.file("s");
  EXPECT_EQ(ControlClient::connect(path, 0ms).error().fault, Fault::notRunning);
  EXPECT_EQ(ControlClient::connect(directory.file(std::string(200, 'x')), 0ms).error().fault, Fault::system);
  {
    const auto listener = listenOnUnixSocket(path, 0600, 1);
    std::vector<ControlClient> waiting;
    std::optional<ControlClientError> refused;
    while (!refused && waiting.size() < 100) {
      auto client = ControlClient::connect(path, 1ms);
      if (!client) {
        refused = client.error();
      } else {
        waiting.push_back(std::move(*client));
      }
    }
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->fault, Fault::timedOut) << refused->text;
  }
  EXPECT_EQ(ControlClient::connect(path, 0ms).error().fault, Fault::notRunning)
      << "a socket nobody listens to";
}

}  // namespace
}  // namespace vimbrel
