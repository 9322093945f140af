// SPDX-License-Identifier: Apache-2.0
#include "Support/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

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

/// Long enough to be written in more than one step.
std::string wholeContents(char letter) { return std::string(200'000, letter); }
bool isWhole(const std::string& contents) {
  return !contents.empty() && contents == wholeContents(contents[0]);
}

TEST(AtomicFile, aKilledWriterLeavesWholeContentsAndNothingThatStays) {
  const TemporaryDirectory directory;
  const auto path = directory.file("data");
  ASSERT_TRUE(replaceFile(path, wholeContents('0')));
  for (int round = 0; round < 40; ++round) {
    int started[2];
    ASSERT_EQ(pipe(started), 0);
    const pid_t child = fork();
    if (child == 0) {
      for (char letter = 'a';; letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1)) {
        if (!replaceFile(path, wholeContents(letter))) _exit(1);
        (void)!write(started[1], "x", 1);
      }
    }
    // Killed after some replacements, wherever it then is.
    close(started[1]);
    char byte = 0;
    for (int done = 0; done <= round % 7; ++done) ASSERT_EQ(read(started[0], &byte, 1), 1);
    for (int spin = 0; spin < round * 4000; ++spin) asm volatile("");
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    close(started[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed";
    EXPECT_TRUE(isWhole(*readFile(path)));
    EXPECT_LE(entriesIn(directory.path()), 2U);
  }
  // The worst moment: the new file has its name and has not replaced the old one.
  std::ofstream(path + ".new") << "of a killed process";
  ASSERT_TRUE(replaceFile(path, wholeContents('9')));
  EXPECT_EQ(*readFile(path), wholeContents('9'));
  EXPECT_EQ(entriesIn(directory.path()), 1U);
}

TEST(AtomicFile, whatStandsInTheNewFilesPlaceIsNeitherFollowedNorInTheWay) {
  const TemporaryDirectory directory;
  const auto path = directory.file("data");
  ASSERT_TRUE(replaceFile(directory.file("victim"), "precious"));
  for (const auto& link : {path, path + ".new"}) {
    std::filesystem::create_symlink(directory.file("victim"), link);
  }
  ASSERT_TRUE(replaceFile(path, "one"));
  EXPECT_EQ(*readFile(path), "one");
  EXPECT_EQ(*readFile(directory.file("victim")), "precious");
  std::filesystem::create_directory(path + ".new");
  ASSERT_TRUE(replaceFile(path, "two"));
  EXPECT_EQ(*readFile(path), "two");
}

TEST(AtomicFile, oneOfSeveralWritersWinsAndNoneFails) {
  const TemporaryDirectory directory;
  const auto path = directory.file("data");
  ASSERT_TRUE(replaceFile(path, wholeContents('0')));
  std::atomic<int> failures = 0;
  std::atomic<int> torn = 0;
  std::vector<std::thread> threads;
  for (char letter = 'a'; letter < 'e'; ++letter) {
    threads.emplace_back([&, letter] {
      for (int i = 0; i < 100; ++i) {
        if (!replaceFile(path, wholeContents(letter))) ++failures;
        const auto contents = readFile(path);
        if (!contents || !isWhole(*contents)) ++torn;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(torn, 0);
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

}  // namespace
}  // namespace vimbrel
