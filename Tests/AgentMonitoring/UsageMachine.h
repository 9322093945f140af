// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <utime.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "AgentMonitoring/UsageCoordinator.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// An answer in Claude Code's log.
struct ClaudeAnswer {
  std::string session = "s1";
  std::string id = "m1";
  std::string usage = R"("input_tokens":10)";
  std::string time = "2026-03-07T11:59:00Z";
  std::string directory = "/home/me/p";

  [[nodiscard]] std::string line() const {
    return R"({"type":"assistant","cwd":")" + directory + R"(","sessionId":")" + session +
           R"(","timestamp":")" + time + R"(","message":{"id":")" + id +
           R"(","model":"claude-opus-5","usage":{)" + usage + "}}}\n";
  }
};

/// A count of tokens in a rollout of Codex: half of the input is cached, ten tokens are output.
struct CodexCount {
  int cumulative;
  int last;
  std::string time = "2026-03-07T11:00:00Z";
  std::string more{};
  bool hasTotals = true;

  [[nodiscard]] std::string line() const {
    return R"({"timestamp":")" + time +
           R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)" +
           counts(cumulative) + R"(,"last_token_usage":)" + counts(last) +
           R"(,"model_context_window":200000})" + more + "}}\n";
  }
  [[nodiscard]] std::string counts(int input) const {
    return R"({"input_tokens":)" + std::to_string(input) + R"(,"cached_input_tokens":)" +
           std::to_string(input / 2) + R"(,"output_tokens":10,"reasoning_output_tokens":4)" +
           (hasTotals ? R"(,"total_tokens":)" + std::to_string(input + 10) : "") + "}";
  }
};

/// The first line of a rollout.
inline std::string codexMeta(const std::string& id, const std::string& more = "",
                             const std::string& time = "2026-03-07T10:00:00Z") {
  return R"({"timestamp":")" + time + R"(","type":"session_meta","payload":{"id":")" + id + "\"" + more +
         "}}\n";
}

/// A database as OpenCode keeps one, with a connection that writes to it.
class OpenCodeWriter {
 public:
  explicit OpenCodeWriter(std::string path) : path_(std::move(path)) {
    execute(
        "PRAGMA journal_mode=WAL; CREATE TABLE session(id TEXT PRIMARY KEY, parent_id TEXT, directory TEXT);"
        "CREATE TABLE message(id TEXT PRIMARY KEY, session_id TEXT, time_created INTEGER,"
        "                     time_updated INTEGER, data TEXT);");
  }
  ~OpenCodeWriter() { close(); }
  OpenCodeWriter(const OpenCodeWriter&) = delete;
  OpenCodeWriter& operator=(const OpenCodeWriter&) = delete;

  void close() { sqlite3_close(std::exchange(connection_, nullptr)); }
  void execute(const std::string& sql) {
    if (connection_ == nullptr) sqlite3_open(path_.c_str(), &connection_);
    char* problem = nullptr;
    ASSERT_EQ(sqlite3_exec(connection_, sql.c_str(), nullptr, nullptr, &problem), SQLITE_OK) << problem;
  }
  void put(const std::string& id, std::int64_t milliseconds, const std::string& data,
           const std::string& session = "s") {
    execute("INSERT OR REPLACE INTO message VALUES('" + id + "','" + session + "'," +
            std::to_string(milliseconds) + ",0,'" + data + "');");
  }

 private:
  std::string path_;
  sqlite3* connection_ = nullptr;
};

/// A user's machine with agents' logs below "claude", "codex" and "opencode", and with the application's own
/// files, in virtual time.
class UsageMachine {
 protected:
  explicit UsageMachine(Instant now = *parseIso8601("2026-03-07T12:00:00Z")) : time_(now) {
    // The write policy allows what stands below these.
    for (const auto* name : {"XDG_DATA_HOME", "XDG_CONFIG_HOME"})
      ::setenv(name, directory_.path().c_str(), 1);
    std::filesystem::create_directories(directory_.file("opencode"));
  }

  /// Each file that is written to is newer than those before, unless it is said when it was modified.
  void append(const std::string& name, const std::string& text, std::optional<Instant> modified = {}) {
    const auto path = directory_.file(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::app | std::ios::binary) << text;
    const auto at = modified ? static_cast<std::time_t>(unixSeconds(*modified)) : ++modified_;
    const utimbuf times{at, at};
    ::utime(path.c_str(), &times);
  }
  void replace(const std::string& name, const std::string& text) {
    std::filesystem::remove(directory_.file(name));
    append(name, text);
  }

  std::shared_ptr<ClaudeUsageProvider> claude(const TreeChangesFactory& changes = nullptr) {
    return std::make_shared<ClaudeUsageProvider>(std::vector{directory_.file("claude")}, time_.mainQueue(),
                                                 time_, ModelRateCard::builtIn(), changes);
  }
  std::shared_ptr<CodexUsageProvider> codex(const TreeChangesFactory& changes = nullptr) {
    return std::make_shared<CodexUsageProvider>(directory_.file("codex"), time_.mainQueue(), time_,
                                                ModelRateCard::builtIn(), changes);
  }
  std::shared_ptr<OpenCodeUsageProvider> openCode(const std::string& name = "opencode/opencode.db") {
    return std::make_shared<OpenCodeUsageProvider>(directory_.file(name), time_.mainQueue(), time_,
                                                   ModelRateCard::builtIn());
  }

  [[nodiscard]] std::string storePath() const { return directory_.file("Vimbrel/usage_store.json"); }
  std::expected<std::unique_ptr<UsageStore>, std::string> openStore() {
    return UsageStore::open({.path = storePath()}, time_.mainQueue(), time_);
  }
  /// What every coordinator of the application is made of.
  UsageCoordinator::Parts parts() {
    UsageCoordinator::Parts parts;
    parts.mainQueue = time_.mainQueue();
    parts.workQueue = time_.makeQueue("work", QueueHome::background);
    parts.openStore = [this] { return openStore(); };
    return parts;
  }

  TemporaryDirectory directory_;
  VirtualTime time_;
  std::time_t modified_ = 1'700'000'000;
};

}  // namespace vimbrel
