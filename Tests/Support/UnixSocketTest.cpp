// SPDX-License-Identifier: Apache-2.0
#include "Support/UnixSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <barrier>
#include <chrono>
#include <filesystem>
#include <future>
#include <iterator>
#include <vector>

#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

/// Stands in for another user, who can open a directory such as /run and lock it.
TEST(UnixSocket, isMadeWhoeverHasLockedItsDirectory) {
  const TemporaryDirectory directory;
  Fd stranger(::open(directory.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::flock(stranger.get(), LOCK_EX), 0);
  auto made = std::async(std::launch::async,
                         [&] { return listenOnUnixSocket(directory.file("s"), 0600, 4).has_value(); });
  EXPECT_EQ(made.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  stranger.reset();
  EXPECT_TRUE(made.get());
}

TEST(UnixSocket, belongsToOneOfManyThatStartTogether) {
  const TemporaryDirectory directory;
  const auto path = directory.file("s");
  constexpr int starters = 8;
  for (int round = 0; round < 50; ++round) {
    std::barrier together(starters);
    std::vector<std::future<std::expected<Fd, SocketError>>> all;
    for (int i = 0; i < starters; ++i) {
      all.push_back(std::async(std::launch::async, [&] {
        together.arrive_and_wait();
        return listenOnUnixSocket(path, 0600, 4);
      }));
    }
    std::vector<Fd> listening;
    for (auto& each : all) {
      auto made = each.get();
      if (made) {
        listening.push_back(*std::move(made));
      } else {
        EXPECT_EQ(made.error().fault, SocketFault::alreadyServed) << made.error().text();
      }
    }
    ASSERT_EQ(listening.size(), 1U);
    EXPECT_TRUE(isUnixSocketServed(path));
  }
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory.path()), {}), 1)
      << "nothing but the socket is left behind";
}

TEST(UnixSocket, acceptsAPathOf102BytesAndNoMore) {
  const TemporaryDirectory directory;
  const auto longest =
      directory.file(std::string(maximumSocketPathLength - directory.path().size() - 1, 's'));
  ASSERT_EQ(longest.size(), 102U);
  const auto listener = listenOnUnixSocket(longest, 0600, 4);
  ASSERT_TRUE(listener);
  const auto connection = connectToUnixSocket(longest, 100);
  ASSERT_TRUE(connection);
  EXPECT_EQ(peerCredentials(connection->get())->pid, getpid());
  EXPECT_EQ(listenOnUnixSocket(longest + "s", 0600, 4).error().fault, SocketFault::pathTooLong);
  EXPECT_EQ(connectToUnixSocket(longest + "s", 100).error().fault, SocketFault::pathTooLong);
}

}  // namespace
}  // namespace vimbrel
