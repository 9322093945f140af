// SPDX-License-Identifier: Apache-2.0
#include "Support/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>

#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

std::size_t entriesIn(const std::string& directory) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

TEST(AtomicFile, replacesContentsAndPermissions) {
  const TemporaryDirectory directory;
  const auto path = directory.file("data");
  ASSERT_TRUE(replaceFile(path, "one"));
  ASSERT_TRUE(replaceFile(path, "two", 0640, Durability::machine));
  EXPECT_EQ(*readFile(path), "two");
  struct stat status{};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  EXPECT_EQ(entriesIn(directory.path()), 1U);
}

TEST(AtomicFile, replacesALinkAndLeavesItsTargetAlone) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(replaceFile(directory.file("target"), "precious"));
  std::filesystem::create_symlink(directory.file("target"), directory.file("link"));
  ASSERT_TRUE(replaceFile(directory.file("link"), "new"));
  EXPECT_EQ(*readFile(directory.file("target")), "precious");
  EXPECT_EQ(*readFile(directory.file("link")), "new");
}

TEST(AtomicFile, aFailedWriteKeepsTheOldContentsAndLeavesNothingBehind) {
  const TemporaryDirectory directory;
  const auto path = directory.file("data");
  ASSERT_TRUE(replaceFile(path, "old"));
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit small{100, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const auto result = replaceFile(path, std::string(1000, 'x'));
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code, EFBIG);
  EXPECT_EQ(*readFile(path), "old");
  EXPECT_EQ(entriesIn(directory.path()), 1U);
}

TEST(AtomicFile, readingRefusesWhatIsNoPlainFileOfBoundedSize) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.file("pipe").c_str(), 0600), 0);
  EXPECT_EQ(readFile(directory.file("pipe")).error().code, EINVAL);
  EXPECT_EQ(readFile(directory.path()).error().code, EISDIR);
  EXPECT_EQ(readFile(directory.file("missing")).error().code, ENOENT);
  ASSERT_TRUE(replaceFile(directory.file("data"), "12345"));
  EXPECT_EQ(readFile(directory.file("data"), 4).error().code, EFBIG);
  EXPECT_EQ(*readFile(directory.file("data"), 5), "12345");
}

TEST(AtomicFile, createsMissingDirectoriesOnly) {
  const TemporaryDirectory directory;
  ASSERT_TRUE(createDirectories(directory.file("a/b/c")));
  ASSERT_TRUE(createDirectories(directory.file("a/b/c")));
  struct stat status{};
  ASSERT_EQ(stat(directory.file("a/b").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  ASSERT_TRUE(replaceFile(directory.file("file"), ""));
  EXPECT_EQ(createDirectories(directory.file("file/x")).error().code, ENOTDIR);
}

}  // namespace
}  // namespace vimbrel
