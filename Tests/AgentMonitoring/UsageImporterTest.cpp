// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/UsageImporter.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zstd.h>

#include <atomic>
#include <csignal>
#include <numeric>
#include <random>
#include <semaphore>
#include <thread>

#include "AgentMonitoring/UsageMachine.h"

namespace vimbrel {
namespace {

class UsageImport : public testing::TestWithParam<unsigned>, protected UsageMachine {
 protected:
  void reopen() {
    store_.reset();
    store_ = *openStore();
  }

  ImportResult import() {
    ImportIndex index(indexPath());
    TurnOwners owners;
    store_->forEachEvent(Instant{Seconds{-1e300}}, Instant{Seconds{1e300}},
                         [&](const UsageEventView& event) { owners.learn(event); });
    UsageImporter importer({.claudeRoots = {directory_.file("claude")},
                            .codexHome = directory_.file("codex"),
                            .openCodeDirectory = directory_.file("opencode")},
                           *store_, index, owners, ModelRateCard::builtIn(), time_, GetParam());
    return importer.run();
  }

  void log(const std::string& session, const std::string& lines) {
    append("claude/projects/p/" + session + ".jsonl", lines);
  }
  [[nodiscard]] std::int64_t output() const {
    const auto events = store_->allEvents();
    return std::accumulate(events.begin(), events.end(), std::int64_t{0},
                           [](auto sum, const auto& event) { return sum + event.outputTokens.value_or(0); });
  }
  [[nodiscard]] std::string indexPath() const { return directory_.file("Vimbrel/usage_index.json"); }

  std::unique_ptr<UsageStore> store_ = *openStore();
};

std::string block(const std::string& session, const std::string& message, int output,
                  const std::string& time = "2026-03-07T10:00:00Z") {
  return ClaudeAnswer{session, message, R"("output_tokens":)" + std::to_string(output), time}.line();
}

TEST_P(UsageImport, countsEachMessageOnceAtItsHighestWithItsOwnTime) {
  log("a", block("a", "msg_1", 1, "2026-01-09T10:00:00.123Z") +
               block("a", "msg_1", 300, "2026-01-09T10:00:01.456789Z") +
               block("a", "msg_1", 300, "2026-01-09T10:00:02Z") +
               block("a", "msg_2", 50, "2026-01-09T11:00:00+01:00"));
  // A resumed conversation repeats the message under another session; a sub-agent's file does so too.
  log("b", block("b", "msg_1", 300, "2026-01-09T10:00:02Z") +
               R"({"type":"assistant","message":{"usage":{"output_tokens":7}}})");
  log("a/subagents/agent-x", block("a", "msg_2", 60, "2026-01-09T10:00:05Z"));
  EXPECT_EQ(import().filesRead, 3U);
  EXPECT_EQ(output(), 300 + 60 + 7);
  const auto events = store_->allEvents();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(formatIso8601(events[0].timestamp, true), "2026-01-09T10:00:01.457Z");
  EXPECT_EQ(ImportIndex(indexPath()).projectOf("a"), "/home/me/p");
  EXPECT_EQ(import().filesUnchanged, 3U);
  log("a", block("a", "msg_4", 1));
  EXPECT_EQ(import().eventsRecorded, 1U);
  // Without its index it reads everything again, and finds nothing new.
  for (const auto* damaged : {"", "{}", "{\"files\":7}"}) {
    std::ofstream(indexPath()) << damaged;
    const auto again = import();
    EXPECT_EQ(again.filesRead, 3U) << damaged;
    EXPECT_EQ(again.eventsRecorded, 0U) << damaged;
  }
}

TEST_P(UsageImport, racingWithLivePollsCountsEachMessageOnce) {
  int expected = 0;
  for (int i = 0; i < 60; ++i) {
    const auto name = "s" + std::to_string(i);
    std::string lines;
    for (int turn = 0; turn < 30; ++turn) {
      const auto message = "msg_" + name + "_" + std::to_string(turn);
      lines += block(name, message, 1) + block(name, message, 10 + turn);
      expected += 10 + turn;
    }
    log(name, lines);
  }
  std::atomic<bool> isOver = false;
  std::size_t polled = 0;
  // An import that is over before the first poll would leave nothing to race for.
  std::binary_semaphore hasPolled{0};
  std::thread poller([&] {
    while (!isOver) {
      for (const auto& event : claude()->pollLatestEvents()) {
        if (store_->record(event) && polled++ == 0) hasPolled.release();
      }
    }
  });
  hasPolled.acquire();
  const auto imported = import();
  isOver = true;
  poller.join();
  EXPECT_EQ(output(), expected);
  EXPECT_EQ(store_->eventCount(), 60U * 30U);
  EXPECT_GE(imported.eventsRecorded + polled, store_->eventCount());
  reopen();
  EXPECT_EQ(output(), expected);
}

TEST_P(UsageImport, killedAnywhereAndBegunAgainCountsEachMessageOnce) {
  int expected = 0;
  for (int i = 0; i < 300; ++i) {
    const auto name = "s" + std::to_string(i);
    log(name, block(name, "msg_" + name, i + 1));
    expected += i + 1;
  }
  store_.reset();
  std::mt19937 random(5);
  for (int kill = 0; kill < 60; ++kill) {
    const pid_t child = ::fork();
    if (child == 0) {
      reopen();
      import();
      store_.reset();
      ::_exit(0);
    }
    ::usleep(std::uniform_int_distribution<unsigned>(0, 12000)(random));
    ::kill(child, SIGKILL);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (kill % 20 == 19) {  // From nothing again: the kills hit the first import, too.
      std::filesystem::remove_all(directory_.file("Vimbrel"));
    }
  }
  reopen();
  import();
  EXPECT_EQ(output(), expected);
  EXPECT_EQ(store_->eventCount(), 300U);
}

TEST_P(UsageImport, readsCodexRolloutsCompressedAndArchivedOnes) {
  const std::string parent = "aaaaaaaa-0000-0000-0000-000000000000";
  const auto repeated = CodexCount{100, 100}.line() + CodexCount{150, 50}.line();
  const auto plain = codexMeta(parent, R"(,"cwd":"/home/u/q")") +
                     "{\"type\":\"turn_context\",\"payload\":{\"model\":\"gpt-4o\"}}\n" + repeated;
  std::string compressed(ZSTD_compressBound(plain.size()), '\0');
  compressed.resize(ZSTD_compress(compressed.data(), compressed.size(), plain.data(), plain.size(), 3));
  append("codex/archived_sessions/rollout-t-" + parent + ".jsonl.zst", compressed);
  append("codex/sessions/2026/03/07/rollout-fork.jsonl",
         codexMeta("f", R"(,"forked_from_id":")" + parent + "\"", "2026-03-07T11:30:00Z") + repeated +
             CodexCount{170, 20, "2026-03-07T11:35:00.25Z", "", false}.line());
  append("codex/sessions/2026/03/07/rollout-cut.jsonl.zst", compressed.substr(0, compressed.size() / 2));
  EXPECT_EQ(import().filesFailed, 1U) << "a file that is cut off is tried again next time";
  std::vector<std::pair<std::string, std::int64_t>> found;
  for (const auto& event : store_->allEvents()) found.emplace_back(event.sessionId, *event.inputTokens);
  EXPECT_EQ(found, (decltype(found){
                       {"rollout-t-" + parent, 100}, {"rollout-t-" + parent, 50}, {"rollout-fork", 20}}));
  EXPECT_EQ(store_->allEvents()[0].modelId, "gpt-4o");
  EXPECT_EQ(formatIso8601(store_->allEvents()[2].timestamp, true), "2026-03-07T11:35:00.250Z");
}

TEST_P(UsageImport, readsEveryOpenCodeDatabase) {
  for (const std::string session : {"opencode", "opencode-beta"}) {
    OpenCodeWriter writer(directory_.file("opencode/" + session + ".db"));
    writer.execute("INSERT INTO session VALUES('" + session + "', NULL, '/home/u/r');");
    for (int i = 1; i <= 40; ++i) {
      const auto number = std::to_string(i);
      writer.put("m" + number, i * 1000, R"({"tokens":{"output":)" + number + "}}", session);
    }
  }
  EXPECT_EQ(import().eventsRecorded, 80U);
  EXPECT_EQ(output(), 2 * 40 * 41 / 2);
  EXPECT_EQ(ImportIndex(indexPath()).projectOf("opencode-beta"), "/home/u/r");
}

INSTANTIATE_TEST_SUITE_P(Threads, UsageImport, testing::Values(1U, 3U));

}  // namespace
}  // namespace vimbrel
