// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <algorithm>
#include <map>
#include <optional>
#include <thread>

#include "ChildProcess.h"
#include "Platform/Linux/ProcProcessList.h"
#include "Platform/Linux/PsProcessList.h"
#include "ScopedEnvironment.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using std::chrono_literals::operator""s;
using namespace std::string_literals;

struct ListWorld {
  VirtualTime time{instantFromUnixSeconds(1'800'000'000)};
  std::shared_ptr<ProcessTable> table = std::make_shared<ProcessTable>(time);
  ProcProcessList list{table};
  ProcessEntries last;

  /// One scan, a second after the one before: what is said of the process, if anything.
  std::optional<std::string> scan(pid_t pid) {
    time.advance(1s);
    last = list.readRelevant([](std::string_view command) { return command.contains("sought"); });
    if (!last) return std::nullopt;
    const auto found = std::ranges::find(*last, pid, &ProcessEntry::pid);
    if (found == last->end()) return std::nullopt;
    return found->command;
  }
  void scans(int count) {
    for (int i = 0; i < count; ++i) (void)scan(0);
  }
};

std::map<std::int32_t, std::string> byPid(const ProcessEntries& entries) {
  std::map<std::int32_t, std::string> result;
  for (const auto& entry : *entries) result.emplace(entry.pid, entry.command);
  return result;
}

/// A kernel worker's name ends with what it works on at the moment.
std::string withoutWork(const std::string& command) {
  if (!command.starts_with("[kworker/")) return command;
  return command.substr(0, command.find_first_of("-+]"));
}

TEST(ProcProcessList, givesTheLinesOfPsForWhateverProgramsShow) {
  const std::vector<std::string> arguments[] = {
      {"plain", "--with", "two words"},
      {"new\nline", "tab\t", "\x01\x1f\x7f", "trailing "},
      {"  blanks first", "", ""},
      {" "},
      {"\n\n"},
      {"bad \xff bytes", "\xc3\xa9t\xc3\xa9"},
      {"cut \xe2\x98"},
      {"cut \xe2\x98!", "\xc3\xa9"},
      {"surrogate \xed\xa0\x80 \xc3\xa9", "beyond \xf4\x90\x80\x80 overlong \xe0\x80\x80"},
      {"lone \x80 \xc3\xa9"},
      {"snow \xe2\x98\x83, wide \xe6\xbc\xa2, combining e\xcc\x81, private \xee\x80\x80, bom \xef\xbb\xbf"},
      {"nel \xc2\x85 csi \xc2\x9b nbsp \xc2\xa0"},
      {"separators \xe2\x80\xa8 812 sought \xe2\x80\xa9"},
      {"long", std::string(100'000, 'x')},
      {"too long", std::string(90'000, 'y'), std::string(90'000, 'z')},
      {"gone", "--blank"},
  };
  std::vector<ChildProcess> children;
  for (const auto& some : arguments) children.emplace_back().exec(some);
  for (const char* name : {"a b", "a)b( (", "[x]", "new\nline", "tab\t\\", "\xff\xc3\xa9", "\xc3\xa9", ""}) {
    children.emplace_back([name] { ::prctl(PR_SET_NAME, name); }).endUnreaped();
  }

  const ScopedEnvironment utf8{{"LC_ALL", "C.UTF-8"}};
  ListWorld world;
  PsProcessList reference;
  const auto before = world.list.readAll();
  const auto expected = reference.readAll();
  const auto after = world.list.readAll();
  ASSERT_TRUE(before && expected && after);
  EXPECT_TRUE(std::ranges::is_sorted(*before, {}, &ProcessEntry::pid));
  const auto first = byPid(before);
  const auto second = byPid(after);
  const auto shown = byPid(expected);
  for (const auto& [pid, command] : shown) {
    // Others may have come, gone or changed while the reference was taken.
    if (!first.contains(pid) || !second.contains(pid) || second.at(pid) != first.at(pid)) continue;
    EXPECT_EQ(withoutWork(first.at(pid)), withoutWork(command)) << pid;
  }
  std::size_t listed = 0;
  for (const auto& child : children) {
    ASSERT_EQ(first.contains(child.pid()), shown.contains(child.pid())) << "only one shows " << child.pid();
    if (!first.contains(child.pid())) continue;
    ++listed;
    EXPECT_EQ(first.at(child.pid()), shown.at(child.pid()));
  }
  EXPECT_EQ(listed, children.size() - 2) << "two of them show nothing but blanks";
  EXPECT_EQ(first.at(children.back().pid()), "[] <defunct>");
}

TEST(ProcProcessList, seesAFreshProcessThatExecsWithinTwoScans) {
  ListWorld world;
  world.scans(2);
  ChildProcess child;
  EXPECT_FALSE(world.scan(child.pid()));
  child.exec({"sought", "at once"});
  EXPECT_EQ(world.scan(child.pid()), "sought at once");
}

TEST(ProcProcessList, seesAnOldProcessThatExecsWithinFifteenSecondsAlsoWhenNothingElseHappens) {
  ListWorld world;
  const std::vector<ChildProcess> crowd(40);
  world.scans(40);
  for (const int quietSeconds : {0, 3, 7, 12}) {
    world.scans(quietSeconds);
    const auto name = "sought " + std::to_string(quietSeconds);
    ChildProcess old;
    world.scans(30);
    old.exec({name});
    int seconds = 1;
    while (world.scan(old.pid()) != name && seconds < 60) ++seconds;
    EXPECT_LE(seconds, 15);
  }
}

TEST(ProcProcessList, forgetsAProcessAtTheNextScanAfterItsEndAndKeepsAZombiesLine) {
  ListWorld world;
  // A program's file name is its name, so only one that is sought leaves a zombie that is.
  const auto link = "/tmp/sought-" + std::to_string(::getpid());
  ASSERT_EQ(::symlink(PATIENT_PROGRAM, link.c_str()), 0);
  ChildProcess child;
  child.exec({"sought"}, link);
  ::unlink(link.c_str());
  EXPECT_EQ(world.scan(child.pid()), "sought");
  child.endUnreaped();
  const auto zombie = world.scan(child.pid()).value_or("");
  EXPECT_TRUE(zombie.starts_with("[sought-") && zombie.ends_with("] <defunct>")) << zombie;
  const auto pid = child.pid();
  child.end();
  EXPECT_EQ(world.scan(pid), std::nullopt);
}

TEST(ProcProcessList, returnsTheSamePointerWhileNothingRelevantChanges) {
  ListWorld world;
  ChildProcess child;
  child.exec({"sought"});
  world.scans(1);
  const auto first = world.last;
  const ChildProcess irrelevant;
  world.scans(20);
  EXPECT_EQ(world.last, first);
  ChildProcess another;
  another.exec({"sought too"});
  world.scans(1);
  EXPECT_NE(world.last, first);
  EXPECT_EQ(world.last->size(), 2U);
}

TEST(ProcProcessList, takesThreadsForNoProcesses) {
  ListWorld world;
  world.scans(2);
  std::atomic<bool> isDone = false;
  std::atomic<pid_t> thread = 0;
  std::thread worker([&] {
    ::prctl(PR_SET_NAME, "sought");
    thread = ::gettid();
    thread.notify_one();
    isDone.wait(false);
  });
  thread.wait(0);
  EXPECT_FALSE(world.scan(thread));
  const auto all = byPid(world.list.readAll());
  EXPECT_FALSE(all.contains(thread));
  isDone = true;
  isDone.notify_one();
  worker.join();
}

TEST(ProcessTable, tellsALateObserverOfEverybodyAndTheFirstOneNothingTwice) {
  struct Counting final : ProcessTableObserver {
    std::map<std::int32_t, std::string> processes;
    void processChanged(std::int32_t pid, std::string_view command, ProcReader::Kind /*kind*/) override {
      processes[pid] = command;
    }
    void processGone(std::int32_t pid) override { processes.erase(pid); }
  };
  ListWorld world;
  ChildProcess child;
  child.exec({"sought"});
  EXPECT_TRUE(world.scan(child.pid()));
  const auto first = world.last;
  Counting late;
  world.table->attach(late);
  const auto pid = child.pid();
  EXPECT_TRUE(world.scan(pid));
  EXPECT_EQ(late.processes.at(pid), "sought");
  EXPECT_EQ(world.last, first);
  child.end();
  EXPECT_FALSE(world.scan(pid));
  EXPECT_FALSE(late.processes.contains(pid));
  world.table->detach(late);
}

}  // namespace
}  // namespace vimbrel
