// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/UsageImporter.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <utime.h>
#include <zstd.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <semaphore>
#include <thread>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "Support/AtomicFile.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

const Instant now = *parseIso8601("2026-03-07T12:00:00Z");

class UsageImport : public testing::TestWithParam<unsigned> {
 protected:
  UsageImport() {
    // The write policy allows what stands below the application-support directory.
    ::setenv("XDG_DATA_HOME", directory_.path().c_str(), 1);
    openStore();
  }

  void openStore() {
    store_.reset();
    UsageStoreOptions options;
    options.path = directory_.file("Vimbrel/usage_store.json");
    store_ = std::move(*UsageStore::open(options, time_.mainQueue(), time_));
  }

  void write(const std::string& name, const std::string& text, bool appending = false) {
    const auto path = directory_.file(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, appending ? std::ios::app : std::ios::trunc) << text;
    const utimbuf times{++modified_, modified_};
    utime(path.c_str(), &times);
  }

  ImportResult import() {
    ImportIndex index(directory_.file("Vimbrel/usage_index.json"));
    TurnOwners owners;
    store_->forEachEvent(Instant{Seconds{-1e300}}, Instant{Seconds{1e300}},
                         [&](const UsageEventView& event) { owners.learn(event); });
    UsageImporter importer({.claudeRoots = {directory_.file("claude")},
                            .codexHome = directory_.file("codex"),
                            .openCodeDirectory = directory_.file("opencode")},
                           *store_, index, owners, ModelRateCard::builtIn(), time_, GetParam());
    return importer.run();
  }

  [[nodiscard]] std::int64_t outputOf(AgentType agent) const {
    std::int64_t sum = 0;
    for (const auto& event : store_->allEvents()) {
      if (event.agentType == agent) sum += event.outputTokens.value_or(0);
    }
    return sum;
  }

  TemporaryDirectory directory_;
  VirtualTime time_{now};
  std::unique_ptr<UsageStore> store_;
  std::time_t modified_ = 1700000000;
};

std::string block(const std::string& session, const std::string& message, int output, const char* time) {
  return R"({"type":"assistant","cwd":"/home/u/p","sessionId":")" + session + R"(","timestamp":")" + time +
         R"(","message":{"id":")" + message +
         R"(","model":"claude-opus-5","usage":{"input_tokens":10,"output_tokens":)" + std::to_string(output) +
         "}}}\n";
}

TEST_P(UsageImport, countsEachMessageOnceAtItsHighestWithItsOwnTime) {
  write("claude/projects/p/a.jsonl", block("a", "msg_1", 1, "2026-01-09T10:00:00.123Z") +
                                         block("a", "msg_1", 300, "2026-01-09T10:00:01.456789Z") +
                                         block("a", "msg_1", 300, "2026-01-09T10:00:02Z") +
                                         block("a", "msg_2", 50, "2026-01-09T11:00:00+01:00"));
  // A resumed conversation repeats the message under another session; a sub-agent's file does so too.
  write("claude/projects/p/b.jsonl",
        block("b", "msg_1", 300, "2026-01-09T10:00:02Z") + block("b", "msg_3", 7, "2026-02-01T00:00:00Z"));
  write("claude/projects/p/a/subagents/agent-x.jsonl", block("a", "msg_2", 60, "2026-01-09T10:00:05Z"));
  const auto result = import();
  EXPECT_EQ(result.filesRead, 3U);
  EXPECT_EQ(outputOf(AgentType::claude), 300 + 60 + 7);
  const auto events = store_->allEvents();
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(formatIso8601(events[0].timestamp, true), "2026-01-09T10:00:01.457Z");
  EXPECT_EQ(ImportIndex(directory_.file("Vimbrel/usage_index.json")).projectOf("a"), "/home/u/p");
}

TEST_P(UsageImport, aSecondImportAndLivePollsChangeNothing) {
  for (int i = 0; i < 40; ++i) {
    const auto name = "s" + std::to_string(i);
    write("claude/projects/p/" + name + ".jsonl",
          block(name, "msg_" + name, i + 1, "2026-03-07T10:00:00.5Z") +
              block(name, "x" + name, 2, "2026-03-07T10:00:00Z") +
              R"({"type":"assistant","message":{"usage":{"output_tokens":3}}})");
  }
  EXPECT_EQ(import().eventsRecorded, 120U);
  const auto first = store_->allEvents();
  auto again = import();
  EXPECT_EQ(again.filesRead, 0U);
  EXPECT_EQ(again.filesUnchanged, 40U);
  // Without its index it reads everything again, and finds nothing new.
  std::filesystem::remove(directory_.file("Vimbrel/usage_index.json"));
  again = import();
  EXPECT_EQ(again.filesRead, 40U);
  EXPECT_EQ(again.eventsRecorded, 0U);
  auto provider = std::make_shared<ClaudeUsageProvider>(
      std::vector{directory_.file("claude")}, time_.mainQueue(), time_, ModelRateCard::builtIn(), nullptr);
  const auto live = provider->pollLatestEvents();
  EXPECT_EQ(live.size(), 15U);
  EXPECT_EQ(store_->recordAll(live), 0U);
  EXPECT_EQ(store_->allEvents(), first);
  // What the agent deletes stays; what it appends is added.
  std::filesystem::remove(directory_.file("claude/projects/p/s1.jsonl"));
  write("claude/projects/p/s2.jsonl", "\n" + block("s2", "msg_new", 9, "2026-03-07T11:00:00Z"), true);
  EXPECT_EQ(import().eventsRecorded, 1U);
  openStore();
  EXPECT_EQ(store_->eventCount(), 121U);
}

TEST_P(UsageImport, leavesWhatWasForgottenAlone) {
  write("claude/projects/p/old.jsonl", block("old", "msg_1", 1, "2026-03-01T10:00:00.5Z"));
  write("claude/projects/p/both.jsonl", block("both", "msg_2", 2, "2026-03-01T10:00:00.5Z"));
  EXPECT_EQ(import().eventsRecorded, 2U);
  const auto index = directory_.file("Vimbrel/usage_index.json");
  ImportIndex::remove(index);
  store_->resetStore();
  modified_ = static_cast<std::time_t>(unixSeconds(now)) + 10;
  write("claude/projects/p/both.jsonl", block("both", "msg_3", 4, "2026-03-07T12:00:05.5Z"), true);
  for (int restart = 0; restart < 2; ++restart) {
    const auto result = import();
    EXPECT_EQ(result.eventsRecorded, restart == 0 ? 1U : 0U);
    const auto provider = std::make_shared<ClaudeUsageProvider>(
        std::vector{directory_.file("claude")}, time_.mainQueue(), time_, ModelRateCard::builtIn(), nullptr);
    EXPECT_EQ(store_->recordAll(provider->pollLatestEvents()), 0U);
    EXPECT_EQ(outputOf(AgentType::claude), 4);
    openStore();
  }
  const auto noted = readFile(index).value_or("");
  EXPECT_NE(noted.find("both"), std::string::npos);
  EXPECT_EQ(noted.find("old"), std::string::npos) << "no path of a forgotten session is kept: " << noted;
}

TEST_P(UsageImport, racingWithLivePollsCountsEachMessageOnce) {
  int expected = 0;
  for (int i = 0; i < 60; ++i) {
    const auto name = "s" + std::to_string(i);
    std::string lines;
    for (int turn = 0; turn < 30; ++turn) {
      const auto message = "msg_" + name + "_" + std::to_string(turn);
      lines += block(name, message, 1, "2026-03-07T10:00:00Z") +
               block(name, message, 10 + turn, "2026-03-07T10:00:00Z");
      expected += 10 + turn;
    }
    write("claude/projects/p/" + name + ".jsonl", lines);
  }
  std::atomic<bool> isOver = false;
  std::size_t polled = 0;
  // An import that is over before the first poll would leave nothing to race for.
  std::binary_semaphore hasPolled{0};
  std::thread poller([&] {
    while (!isOver) {
      const auto provider =
          std::make_shared<ClaudeUsageProvider>(std::vector{directory_.file("claude")}, time_.mainQueue(),
                                                time_, ModelRateCard::builtIn(), nullptr);
      for (const auto& event : provider->pollLatestEvents()) {
        if (store_->record(event) && polled++ == 0) hasPolled.release();
      }
    }
  });
  hasPolled.acquire();
  const auto imported = import();
  isOver = true;
  poller.join();
  EXPECT_EQ(outputOf(AgentType::claude), expected);
  EXPECT_EQ(store_->eventCount(), 60U * 30U);
  EXPECT_GE(imported.eventsRecorded + polled, store_->eventCount());
  openStore();
  EXPECT_EQ(outputOf(AgentType::claude), expected);
}

TEST_P(UsageImport, killedAnywhereAndBegunAgainCountsEachMessageOnce) {
  int expected = 0;
  for (int i = 0; i < 300; ++i) {
    const auto name = "s" + std::to_string(i);
    write("claude/projects/p/" + name + ".jsonl", block(name, "msg_" + name, i + 1, "2026-03-07T10:00:00Z"));
    expected += i + 1;
  }
  store_.reset();
  std::mt19937 random(5);
  for (int kill = 0; kill < 60; ++kill) {
    const pid_t child = ::fork();
    if (child == 0) {
      openStore();
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
  openStore();
  import();
  EXPECT_EQ(outputOf(AgentType::claude), expected);
  EXPECT_EQ(store_->eventCount(), 300U);
}

std::string codexTurn(int cumulative, int last, const char* time) {
  const auto counts = [](int value) {
    return R"({"input_tokens":)" + std::to_string(value) + R"(,"output_tokens":)" + std::to_string(value) +
           "}";
  };
  return R"({"timestamp":")" + std::string(time) +
         R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)" +
         counts(cumulative) + R"(,"last_token_usage":)" + counts(last) + "}}}\n";
}

TEST_P(UsageImport, readsCodexRolloutsCompressedAndArchivedOnes) {
  const std::string parent = "aaaaaaaa-0000-0000-0000-000000000000";
  const auto repeated =
      codexTurn(100, 100, "2026-03-01T10:00:00Z") + codexTurn(150, 50, "2026-03-01T10:01:00Z");
  const auto plain = R"({"type":"session_meta","payload":{"id":")" + parent + R"(","cwd":"/home/u/q"}})" +
                     "\n" + R"({"type":"turn_context","payload":{"model":"gpt-4o"}})" + "\n" + repeated;
  std::string compressed(ZSTD_compressBound(plain.size()), '\0');
  compressed.resize(ZSTD_compress(compressed.data(), compressed.size(), plain.data(), plain.size(), 3));
  write("codex/archived_sessions/rollout-t-" + parent + ".jsonl.zst", compressed);
  write(
      "codex/sessions/2026/03/07/rollout-fork.jsonl",
      R"({"timestamp":"2026-03-07T09:00:00Z","type":"session_meta","payload":{"id":"f","forked_from_id":")" +
          parent + "\"}}\n" + repeated + codexTurn(170, 20, "2026-03-07T09:05:00.25Z"));
  write("codex/sessions/2026/03/07/rollout-cut.jsonl.zst", compressed.substr(0, compressed.size() / 2));
  const auto result = import();
  EXPECT_EQ(result.filesFailed, 1U) << "a file that is cut off is tried again next time";
  const auto events = store_->allEvents();
  EXPECT_EQ(outputOf(AgentType::codex), 100 + 50 + 20);
  ASSERT_EQ(events.size(), 3U);
  EXPECT_EQ(events[0].sessionId, "rollout-t-" + parent);
  EXPECT_EQ(events[0].modelId, "gpt-4o");
  EXPECT_EQ(events[2].sessionId, "rollout-fork");
  EXPECT_EQ(formatIso8601(events[2].timestamp, true), "2026-03-07T09:05:00.250Z");
}

TEST_P(UsageImport, readsEveryOpenCodeDatabase) {
  std::filesystem::create_directories(directory_.file("opencode"));
  for (const auto* name : {"opencode.db", "opencode-beta.db"}) {
    sqlite3* database = nullptr;
    sqlite3_open(directory_.file(std::string("opencode/") + name).c_str(), &database);
    const auto sql =
        "CREATE TABLE message(id, session_id, time_created, time_updated, data);"
        "CREATE TABLE session(id, parent_id, directory);"
        "INSERT INTO session VALUES('" +
        std::string(name) +
        "', NULL, '/home/u/r');"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<40)"
        "INSERT INTO message SELECT 'm' || i, '" +
        name +
        "', i * 1000, 0, "
        "'{\"tokens\":{\"output\":' || i || '}}' FROM n;";
    char* problem = nullptr;
    ASSERT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, &problem), SQLITE_OK) << problem;
    sqlite3_close(database);
  }
  EXPECT_EQ(import().eventsRecorded, 80U);
  EXPECT_EQ(outputOf(AgentType::opencode), 2 * 40 * 41 / 2);
  EXPECT_EQ(ImportIndex(directory_.file("Vimbrel/usage_index.json")).projectOf("opencode-beta.db"),
            "/home/u/r");
}

INSTANTIATE_TEST_SUITE_P(Threads, UsageImport, testing::Values(1U, 3U));

}  // namespace
}  // namespace vimbrel
