// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/UsageImporter.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "AgentMonitoring/UsageImport/ZstdFile.h"
#include "AgentMonitoring/UsageProviders/ClaudeLogLine.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexRollout.h"
#include "AgentMonitoring/UsageProviders/JsonLines.h"
#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"
#include "Support/Directories.h"
#include "Support/TextMap.h"
#include "Support/TryThread.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;

// So many events are recorded with one write: few writes of a growing store, and a few MiB in memory.
constexpr std::size_t batchSize = 16384;
// Readers run at most this many files ahead of the recording, which bounds what waits in memory.
constexpr std::size_t filesAhead = 32;
constexpr int deepest = 16;
// A file's time may be this much older than what is written into it.
constexpr std::chrono::seconds fileTimeSlack{2};

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

/// The session of a log: its file's name without ".zst" and without its extension.
std::string sessionOf(const std::string& path) {
  auto name = path.substr(path.rfind('/') + 1);
  if (name.ends_with(".zst")) name.resize(name.size() - 4);
  return name.substr(0, name.rfind('.'));
}

bool isRollout(std::string_view name) {
  return name.find("rollout") != std::string_view::npos &&
         (name.ends_with(".jsonl") || name.ends_with(".jsonl.zst"));
}

void walk(const std::string& root, const std::function<void(const std::string&)>& visit) {
  std::error_code error;  // What cannot be listed has no records for us.
  fs::recursive_directory_iterator entry(root, fs::directory_options::skip_permission_denied, error);
  for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
    const std::string name = entry->path().filename().native();
    if (name.starts_with('.') || entry.depth() >= deepest) entry.disable_recursion_pending();
    if (!name.starts_with('.')) visit(entry->path().native());
  }
}

}  // namespace

UsageSources UsageSources::ofUser() {
  const auto home = directories::home();
  auto codex = variable("CODEX_HOME");
  if (!codex.starts_with('/')) codex = home + "/.codex";
  return {vimbrel::claudeRoots(home, directories::configuration(), variable("CLAUDE_CONFIG_DIR")), codex,
          directories::applicationSupport() + "/opencode"};
}

struct UsageImporter::File {
  enum class Kind : std::uint8_t { claude, codex, openCode };
  Kind kind = Kind::claude;
  std::string path;
  FileStamp stamp;
};

struct UsageImporter::Found {
  bool isComplete = false;
  std::vector<UsageEvent> events;
  std::vector<std::pair<std::string, std::string>> projects;  // session, directory
};

UsageImporter::UsageImporter(UsageSources sources, UsageStore& store, ImportIndex& index, TurnOwners& owners,
                             const ModelRateCard& card, const Clock& clock, unsigned threads)
    : sources_(std::move(sources)),
      store_(store),
      index_(index),
      owners_(owners),
      card_(card),
      clock_(clock),
      threads_(std::max(threads, 1U)) {}

std::vector<UsageImporter::File> UsageImporter::filesToRead(ImportResult& result) const {
  std::vector<File> files;
  const auto forgottenBefore = store_.forgottenBefore();
  const auto isForgotten = [&](const FileStamp& stamp) {
    const Instant modified{Seconds(std::chrono::nanoseconds(stamp.modified))};
    return forgottenBefore && modified + fileTimeSlack < *forgottenBefore;
  };
  const auto consider = [&](File::Kind kind, const std::string& path) {
    const auto stamp = stampOf(path);
    if (!stamp) return;
    if (kind != File::Kind::openCode && isForgotten(*stamp)) {
      ++result.filesUnchanged;  // Not even its path is noted again.
      return;
    }
    // A database in use keeps its newest rows in the log beside it, so its own stamp tells too little.
    if (kind != File::Kind::openCode && index_.isUnchanged(path, *stamp)) {
      ++result.filesUnchanged;
    } else {
      files.push_back({kind, path, *stamp});
    }
  };
  for (const auto& root : sources_.claudeRoots) {
    walk(root + "/projects", [&](const std::string& path) {
      if (path.ends_with(".jsonl")) consider(File::Kind::claude, path);
    });
  }
  for (const auto* directory : {"/sessions", "/archived_sessions"}) {
    walk(sources_.codexHome + directory, [&](const std::string& path) {
      if (isRollout(path.substr(path.rfind('/') + 1))) consider(File::Kind::codex, path);
    });
  }
  std::error_code error;  // Without OpenCode there is no directory.
  for (fs::directory_iterator entry(sources_.openCodeDirectory, error), end; !error && entry != end;
       entry.increment(error)) {
    const auto name = entry->path().filename().native();
    if (name == "opencode.db" || (name.starts_with("opencode-") && name.ends_with(".db"))) {
      consider(File::Kind::openCode, entry->path().native());
    }
  }
  // Oldest first: a message that was repeated belongs to the log that had it first.
  std::sort(files.begin(), files.end(), [](const File& a, const File& b) {
    return a.stamp.modified != b.stamp.modified ? a.stamp.modified < b.stamp.modified : a.path < b.path;
  });
  return files;
}

/// What one thread reads with, file after file.
struct UsageImporter::Tools {
  explicit Tools(const ModelRateCard& card) : claude(card) {}

  JsonLinesReader lines;
  ClaudeLogParser claude;
};

UsageImporter::Found UsageImporter::readFile(const File& file, Tools& tools) const {
  switch (file.kind) {
    case File::Kind::claude:
      return readClaude(file, tools);
    case File::Kind::codex:
      return readCodex(file);
    case File::Kind::openCode:
      return readOpenCode(file);
  }
  return {};
}

UsageImporter::Found UsageImporter::readClaude(const File& file, Tools& tools) const {
  Found found;
  const auto session = sessionOf(file.path);
  const auto now = clock_.now();
  // About one record that is kept in so many bytes of a log; growing in steps would move large records again
  // and again.
  found.events.reserve(file.stamp.size / 12288);
  // Each message comes once for every block of its content; the reading that counted most is the true one.
  TextMap<std::size_t> byTurn;
  std::string projectSession;
  JsonLinesPosition position;
  ClaudeLogRecord record;
  const auto result = tools.lines.read(file.path, position, [&](const JsonLinesReader::Line& line) {
    if (line.isTerminated && !ClaudeLogParser::mayCarryUsage(line.text)) return true;
    const auto outcome = tools.claude.parse(line.text, line.number, session, now, LogTimes::all, record);
    if (outcome != ClaudeLogParser::Outcome::usage) return outcome != ClaudeLogParser::Outcome::noJson;
    if (record.directory && record.event.sessionId != projectSession) {
      projectSession = record.event.sessionId;
      found.projects.emplace_back(projectSession, *record.directory);
    }
    const auto known = byTurn.find(*record.event.turnId);
    if (known == byTurn.end()) {
      byTurn.emplace(*record.event.turnId, found.events.size());
      found.events.push_back(tools.claude.eventOf(record));
      return true;
    }
    auto& earlier = found.events[known->second];
    if (earlier.sessionId != record.event.sessionId) {
      found.events.push_back(tools.claude.eventOf(record));
    } else if (record.event.countsMoreThan(earlier.view())) {
      earlier = tools.claude.eventOf(record);
    }
    return true;
  });
  found.isComplete = result != JsonLinesResult::unreadable;
  return found;
}

UsageImporter::Found UsageImporter::readCodex(const File& file) const {
  Found found;
  JsonLinesReader reader;
  CodexRolloutParser parser(card_);
  const auto session = sessionOf(file.path);
  const auto now = clock_.now();
  CodexRolloutState state;
  auto reading = CodexRolloutParser::freshReading();

  const auto readLines = [](JsonLinesReader& lines, const std::string& path, JsonLinesPosition& position,
                            const JsonLinesReader::LineHandler& handler) {
    if (!path.ends_with(".zst")) return lines.read(path, position, handler) != JsonLinesResult::unreadable;
    ZstdFile compressed(path);
    return lines.feed([&](char* memory, std::size_t size) { return compressed.read(memory, size); }, position,
                      handler);
  };
  const auto recordsOf = [&](const std::string& id) {
    std::shared_ptr<std::vector<CodexFingerprint>> records;
    for (const auto* directory : {"/sessions", "/archived_sessions"}) {
      walk(sources_.codexHome + directory, [&](const std::string& path) {
        if (records || path == file.path || sessionOf(path).find(id) == std::string::npos) return;
        records = std::make_shared<std::vector<CodexFingerprint>>();
        JsonLinesReader parentReader;
        CodexRolloutParser parentParser(card_);
        JsonLinesPosition start;
        readLines(parentReader, path, start, [&](const JsonLinesReader::Line& line) {
          if (auto record = parentParser.fingerprint(line.text)) records->push_back(*record);
          return true;
        });
      });
    }
    return std::shared_ptr<const std::vector<CodexFingerprint>>(records);
  };

  found.isComplete = readLines(reader, file.path, state.position, [&](const JsonLinesReader::Line& line) {
    return parser.take(line, session, now, LogTimes::all, state, reading, recordsOf,
                       [&](UsageEvent event) { found.events.push_back(std::move(event)); });
  });
  if (state.directory) found.projects.emplace_back(session, *state.directory);
  return found;
}

UsageImporter::Found UsageImporter::readOpenCode(const File& file) const {
  Found found;
  const OpenCodeDatabase database(file.path);
  OpenCodeMessageParser parser(card_);
  const auto now = clock_.now();
  found.isComplete = database.allMessages([&](const OpenCodeRow& row) {
    if (auto usage = parser.parse(row, now)) found.events.push_back(std::move(usage->event));
  });
  // Old databases have no such table; their sessions then have no project.
  database.sessionDirectories([&](std::string_view session, std::string_view directory) {
    found.projects.emplace_back(session, directory);
  });
  return found;
}

ImportResult UsageImporter::run(const std::function<void(const ImportProgress&)>& progress,
                                const std::atomic<bool>* cancelled) {
  ImportResult result;
  const auto files = filesToRead(result);
  ImportProgress state;
  state.filesInAll = files.size();
  for (const auto& file : files) state.bytesInAll += file.stamp.size;

  UsageStore::Bulk bulk(store_);
  std::vector<UsageEvent> batch;
  batch.reserve(std::min<std::size_t>(batchSize + batchSize / 8, state.bytesInAll / 4096));
  std::vector<const File*> finished;  // their events are in the batch
  std::vector<std::pair<std::string, std::string>> projects;
  const auto recordBatch = [&] {
    result.eventsFound += batch.size();
    for (auto& event : batch) owners_.assign(event);
    result.eventsRecorded += bulk.recordAll(batch);
    batch.clear();
    for (const auto* file : finished) index_.setRead(file->path, file->stamp);
    finished.clear();
    // Sessions that the store does not have are forgotten ones, or have no usage.
    for (const auto& [session, directory] : projects) {
      if (store_.knowsSession(session)) index_.setProject(session, directory);
    }
    projects.clear();
  };
  const auto accept = [&](const File& file, Found found) {
    std::move(found.events.begin(), found.events.end(), std::back_inserter(batch));
    std::move(found.projects.begin(), found.projects.end(), std::back_inserter(projects));
    if (found.isComplete) {
      finished.push_back(&file);
      ++result.filesRead;
    } else {
      ++result.filesFailed;
    }
    result.bytesRead += file.stamp.size;
    ++state.filesDone;
    state.bytesDone += file.stamp.size;
    if (batch.size() >= batchSize) recordBatch();
    if (progress) progress(state);
  };
  const auto isCancelled = [&] { return cancelled != nullptr && cancelled->load(std::memory_order_relaxed); };

  const auto readAlone = [&] {
    Tools tools(card_);
    for (const auto& file : files) {
      if (isCancelled()) break;
      accept(file, readFile(file, tools));
    }
  };
  if (threads_ == 1 || files.size() < 2) {
    readAlone();
  } else {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<std::optional<Found>> read(files.size());
    std::size_t next = 0;
    std::size_t accepted = 0;
    bool stopping = false;
    const auto work = [&] {
      Tools tools(card_);
      std::unique_lock guard(lock);
      for (;;) {
        changed.wait(guard, [&] { return stopping || next >= files.size() || next < accepted + filesAhead; });
        if (stopping || next >= files.size()) return;
        const auto mine = next++;
        guard.unlock();
        auto found = readFile(files[mine], tools);
        guard.lock();
        read[mine] = std::move(found);
        changed.notify_all();
      }
    };
    std::vector<std::jthread> readers;
    for (unsigned i = 0; i < threads_; ++i) {
      auto reader = tryThread(work);
      if (!reader) break;
      readers.push_back(std::move(*reader));
    }
    if (readers.empty()) {
      readAlone();
      accepted = files.size();
    }
    std::unique_lock guard(lock);
    while (accepted < files.size() && !isCancelled()) {
      changed.wait(guard, [&] { return read[accepted].has_value(); });
      auto found = std::move(*read[accepted]);
      read[accepted].reset();
      guard.unlock();
      accept(files[accepted], std::move(found));
      guard.lock();
      ++accepted;
      changed.notify_all();
    }
    stopping = true;
    changed.notify_all();
  }
  recordBatch();
  // A file counts as read only when its events are on disk.
  if (bulk.finish()) index_.save();
  return result;
}

}  // namespace vimbrel
