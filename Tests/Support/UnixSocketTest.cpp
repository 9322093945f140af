// SPDX-License-Identifier: Apache-2.0
#include "Support/UnixSocket.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

TEST(UnixSocket, replacesAStaleSocketButNotAServedOne) {
  const TemporaryDirectory directory;
  const auto path = directory.file("s");
  {
    const auto crashed = listenOnUnixSocket(path, 0600, 4);
    ASSERT_TRUE(crashed);
  }
  ASSERT_TRUE(std::filesystem::exists(path));
  const auto listener = listenOnUnixSocket(path, 0600, 4);
  ASSERT_TRUE(listener) << listener.error().text();
  struct stat status{};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
  const auto second = listenOnUnixSocket(path, 0600, 4);
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().fault, SocketFault::alreadyServed);
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
