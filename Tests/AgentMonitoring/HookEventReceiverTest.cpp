// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookEventReceiver.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <thread>

#include "CapturedLog.h"
#include "Stranger.h"
#include "Support/EventLoop.h"
#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::StartsWith;

constexpr int patienceMilliseconds = 30'000;  // Only a broken receiver makes a test wait this long.
constexpr const char* successAnswer = "{\"ok\":true}\n";

class Collector final : public HookEventReceiverDelegate {
 public:
  void didReceiveHookEvent(const HookEvent& event) override {
    const std::lock_guard guard(lock_);
    ids_.push_back(event.sessionId);
    changed_.notify_all();
  }
  /// The session ids in the order of delivery, once there are as many as wanted.
  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::milliseconds(patienceMilliseconds),
                      [&] { return ids_.size() >= count; });
    return ids_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::vector<std::string> ids_;
};

std::string document(const std::string& id) {
  return R"({"agent":"claude","state":"working","session_id":")" + id + "\"}";
}

class HookEventReceiverTest : public testing::Test {
 protected:
  HookEventReceiverTest() { receiver.setDelegate(collector); }
  ~HookEventReceiverTest() override {
    receiver.stop();
    loop.stop();
  }

  [[nodiscard]] Fd connect() const {
    auto connection = connectToUnixSocket(path, patienceMilliseconds);
    EXPECT_TRUE(connection) << (connection ? "" : connection.error().text());
    return connection ? std::move(*connection) : Fd{};
  }
  static void write(const Fd& connection, const std::string& text) {
    static_cast<void>(::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL));
  }
  /// All that the receiver sends until it disconnects.
  static std::string readAll(const Fd& connection) {
    std::string all;
    char buffer[256];
    ssize_t count = 0;
    while ((count = ::recv(connection.get(), buffer, sizeof buffer, 0)) > 0) {
      all.append(buffer, static_cast<std::size_t>(count));
    }
    if (count < 0 && errno == EAGAIN) all += " (still connected)";
    return all;
  }
  [[nodiscard]] std::string ask(const std::string& text) const {
    const auto connection = connect();
    write(connection, text);
    return readAll(connection);
  }

  TemporaryDirectory directory;
  const std::string path = directory.file("run/deeper/v.sock");
  SystemClock clock;
  EventLoop loop;
  std::shared_ptr<Collector> collector = std::make_shared<Collector>();
  HookEventReceiver receiver{path, loop, clock};
  std::jthread mainLoop{[this] { loop.run(); }};
};

TEST_F(HookEventReceiverTest, answersDeliversAndKeepsItsSocketPrivate) {
  ASSERT_TRUE(receiver.start());
  ASSERT_TRUE(receiver.start()) << "starting again does nothing";
  EXPECT_TRUE(receiver.isRunning());
  struct stat status{};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  for (const auto* made : {"run", "run/deeper"}) {
    ASSERT_EQ(::stat(directory.file(made).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U) << made;
  }
  EXPECT_EQ(ask(document("s1")), successAnswer);
  EXPECT_THAT(collector->waitFor(1), ElementsAre("s1"));

  receiver.stop();
  receiver.stop();
  EXPECT_FALSE(receiver.isRunning());
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_FALSE(connectToUnixSocket(path, 100));
  ASSERT_TRUE(receiver.start());
  EXPECT_EQ(ask(document("s2")), successAnswer);
}

TEST_F(HookEventReceiverTest, takesNothingFromAnotherUserWhateverThePermissionsSay) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can act as a second user";
  ASSERT_TRUE(receiver.start());
  const auto sends = [this](const char* session) {
    return [this, session] {
      const auto connection = connectToUnixSocket(path, patienceMilliseconds);
      if (!connection) return 2;
      write(*connection, document(session));
      return readAll(*connection).empty() ? 1 : 0;
    };
  };
  EXPECT_EQ(asUser(stranger, strangersGroup, sends("outside")), 2) << "the permissions keep strangers out";
  for (const auto* opened : {"", "/run", "/run/deeper"}) ::chmod((directory.path() + opened).c_str(), 0755);
  ::chmod(path.c_str(), 0666);
  EXPECT_EQ(asUser(stranger, strangersGroup, sends("inside")), 1) << "and so does the receiver";
  EXPECT_EQ(asUser(0, 0, sends("own")), 0);
  EXPECT_THAT(collector->waitFor(1), ElementsAre("own"));
}

TEST_F(HookEventReceiverTest, answersEveryKindOfGarbageAndDeliversNoneOfIt) {
  ASSERT_TRUE(receiver.start());
  CapturedLog log;
  const std::string garbage[] = {
      R"({"agent":"codex"})",
      R"({"agent":7,"state":"idle"})",
      "[]",
      "not json at all",
      std::string("\0\xff\xfe\n\"\\", 6),
      std::string(20'000, '['),
      document("first piece").substr(0, 20),
      document(std::string(70'000, 'x')),
  };
  for (const auto& text : garbage) {
    const auto answer = ask(text);
    EXPECT_THAT(answer, StartsWith("{\"ok\":false,\"error\":\"")) << text.substr(0, 40);
    EXPECT_TRUE(answer.ends_with("\"}\n"));
    EXPECT_EQ(answer.find_first_of("\"\\\n\r", 21), answer.size() - 3) << answer;
    const auto read = std::to_string(std::min<std::size_t>(text.size(), 65'536));
    EXPECT_THAT(log.take(),
                ElementsAre(StartsWith("error hooks: Failed to parse hook event (" + read + " bytes)")));
  }
  {
    const auto mute = connect();
    ::shutdown(mute.get(), SHUT_WR);
    EXPECT_EQ(readAll(mute), "") << "nothing was said, nothing is answered";
  }
  EXPECT_EQ(ask(document("good")), successAnswer);
  EXPECT_THAT(collector->waitFor(1), ElementsAre("good"));
}

TEST_F(HookEventReceiverTest, letsHundredsOfSilentConnectionsDelayNobody) {
  ASSERT_TRUE(receiver.start());
  std::vector<Fd> silent;
  for (int i = 0; i < 400; ++i) silent.push_back(connect());
  // One after the other, a second each, these would take minutes.
  EXPECT_EQ(ask(document("e")), successAnswer);
  EXPECT_THAT(collector->waitFor(1), ElementsAre("e"));
  for (const auto& connection : silent)
    ASSERT_EQ(readAll(connection), "") << "disconnected without an answer";
}

TEST_F(HookEventReceiverTest, waitsForAConnectionThatWritesLater) {
  ASSERT_TRUE(receiver.start());
  const auto early = connect();
  EXPECT_EQ(ask(document("quick")), successAnswer);  // By now the early one is set aside.
  write(early, document("late"));
  EXPECT_EQ(readAll(early), successAnswer);
  EXPECT_THAT(collector->waitFor(2), ElementsAre("quick", "late"));
}

TEST_F(HookEventReceiverTest, keepsTheOrderInWhichOneSenderWrote) {
  ASSERT_TRUE(receiver.start());
  std::vector<std::string> sent;
  const auto send = [&](const Fd& connection) {
    sent.push_back(std::to_string(sent.size()));
    write(connection, document(sent.back()));
  };
  for (int round = 0; round < 100; ++round) {
    auto first = connect();
    if (round % 3 == 0) std::this_thread::yield();  // Sometimes accepted before it writes, sometimes not.
    if (round % 5 == 0) {
      EXPECT_EQ(ask(document(sent.emplace_back("asked"))), successAnswer);
    }
    send(first);
    if (round % 2 == 0) first.reset();  // Gone before it is answered.
    send(connect());
  }
  EXPECT_EQ(collector->waitFor(sent.size()), sent);
}

TEST_F(HookEventReceiverTest, servesOnWhenTheProcessHasNoDescriptorLeft) {
  ASSERT_TRUE(receiver.start());
  EXPECT_EQ(ask(document("before")), successAnswer);
  std::vector<Fd> clients;
  for (int i = 0; i < 6; ++i) clients.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit tight{128, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
  std::vector<Fd> fillers;
  do {
    fillers.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  } while (fillers.back());
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const timeval timeout{patienceMilliseconds / 1000, 0};
  std::vector<std::string> answers;
  for (const auto& client : clients) {
    ::setsockopt(client.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    EXPECT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    // Each third is a silent one, which takes the last descriptor and must give it up.
    if ((&client - clients.data()) % 3 == 0) continue;
    write(client, document("tight"));
    answers.push_back(readAll(client));
  }
  fillers.clear();
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_THAT(answers, testing::Each(successAnswer));
  EXPECT_EQ(ask(document("after")), successAnswer);
}

TEST_F(HookEventReceiverTest, refusesASocketThatIsServedAndReplacesAStaleOne) {
  ASSERT_TRUE(receiver.start());
  HookEventReceiver second(path, loop, clock);
  const auto refused = second.start();
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().fault, HookReceiverError::Fault::alreadyServed);
  EXPECT_FALSE(second.isRunning());
  EXPECT_EQ(ask(document("a")), successAnswer) << "the first goes on";

  // The first one's file is taken away and the path taken over: its end must not remove the other's.
  std::filesystem::remove(path);
  ASSERT_TRUE(second.start());
  receiver.stop();
  EXPECT_TRUE(std::filesystem::exists(path));
  second.setDelegate(collector);
  EXPECT_EQ(ask(document("b")), successAnswer);
  second.stop();

  {
    const auto crashed = listenOnUnixSocket(path, 0600, 1);
  }
  ASSERT_TRUE(std::filesystem::exists(path));
  ASSERT_TRUE(receiver.start());
  EXPECT_EQ(ask(document("c")), successAnswer);
}

TEST_F(HookEventReceiverTest, refusesAPathThatDoesNotFitAndADirectoryThatCannotBe) {
  const auto longPath = directory.file(std::string(103 - directory.path().size() - 1, 's'));
  HookEventReceiver tooLong(longPath, loop, clock);
  EXPECT_EQ(tooLong.start().error().fault, HookReceiverError::Fault::payloadTooLarge);

  std::ofstream(directory.file("plain")) << "x";
  HookEventReceiver inFile(directory.file("plain/v.sock"), loop, clock);
  const auto error = inFile.start().error();
  EXPECT_EQ(error.fault, HookReceiverError::Fault::directory);
  EXPECT_EQ(error.code, ENOTDIR);
}

TEST_F(HookEventReceiverTest, stopsAndStartsUnderFire) {
  std::jthread clients([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      const auto connection = connectToUnixSocket(path, 100);
      if (!connection) continue;
      write(*connection, document("fire"));
      char answer[16];
      static_cast<void>(::recv(connection->get(), answer, sizeof answer, 0));
    }
  });
  for (int i = 0; i < 50; ++i) {
    ASSERT_TRUE(receiver.start());
    if (i % 2 == 0) receiver.setDelegate(collector);
    collector->waitFor(static_cast<std::size_t>(i));
    receiver.stop();
  }
}

}  // namespace
}  // namespace vimbrel
