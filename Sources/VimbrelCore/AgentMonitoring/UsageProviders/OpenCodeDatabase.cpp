// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"

#include <sqlite3.h>
#include <sys/stat.h>

namespace vimbrel {
namespace {

constexpr const char* newestQuery =
    "SELECT id, session_id, time_created, data\n"
    "FROM message\n"
    "WHERE data LIKE '%\"tokens\"%'\n"
    "ORDER BY time_created DESC LIMIT 25;";
constexpr const char* allQuery =
    "SELECT id, session_id, time_created, data FROM message WHERE data LIKE '%\"tokens\"%';";
constexpr const char* sessionsQuery = "SELECT id, directory FROM session;";
constexpr const char* childQuery = "SELECT 1 FROM session WHERE id = ?1 AND parent_id IS NOT NULL;";
// OpenCode commits often and briefly; a longer wait would hold up the poll, which comes again anyway.
constexpr int busyMilliseconds = 100;

/// One column as text; absent for NULL.
std::optional<std::string_view> text(sqlite3_stmt* statement, int column) {
  const auto* bytes = sqlite3_column_text(statement, column);
  if (bytes == nullptr) return std::nullopt;
  return std::string_view(reinterpret_cast<const char*>(bytes),
                          static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
}

bool forEachRow(const std::string& path, const char* query, const std::function<void(sqlite3_stmt*)>& handler,
                const std::string* parameter = nullptr) {
  sqlite3* database = nullptr;
  const int opened =
      sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
  const std::unique_ptr<sqlite3, int (*)(sqlite3*)> closing(database, sqlite3_close);
  if (opened != SQLITE_OK) return false;
  sqlite3_busy_timeout(database, busyMilliseconds);
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(database, query, -1, &statement, nullptr) != SQLITE_OK) return false;
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> finalizing(statement, sqlite3_finalize);
  if (parameter != nullptr &&
      sqlite3_bind_text(statement, 1, parameter->data(), static_cast<int>(parameter->size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    return false;
  }
  int step = SQLITE_ROW;
  while ((step = sqlite3_step(statement)) == SQLITE_ROW) handler(statement);
  return step == SQLITE_DONE;
}

bool forEachMessage(const std::string& path, const char* query,
                    const std::function<void(const OpenCodeRow&)>& handler) {
  return forEachRow(path, query, [&](sqlite3_stmt* statement) {
    const auto id = text(statement, 0);
    const auto session = text(statement, 1);
    const auto data = text(statement, 3);
    if (id && session && data) handler({*id, *session, sqlite3_column_int64(statement, 2), *data});
  });
}

bool fill(std::int64_t (&figures)[3], const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0) return false;
  figures[0] = status.st_size;
  figures[1] = status.st_mtim.tv_sec;
  figures[2] = status.st_mtim.tv_nsec;
  return true;
}

}  // namespace

bool OpenCodeDatabase::newestMessages(const std::function<void(const OpenCodeRow&)>& handler) const {
  return forEachMessage(path_, newestQuery, handler);
}

bool OpenCodeDatabase::allMessages(const std::function<void(const OpenCodeRow&)>& handler) const {
  return forEachMessage(path_, allQuery, handler);
}

bool OpenCodeDatabase::sessionDirectories(
    const std::function<void(std::string_view, std::string_view)>& handler) const {
  return forEachRow(path_, sessionsQuery, [&](sqlite3_stmt* statement) {
    const auto id = text(statement, 0);
    const auto directory = text(statement, 1);
    if (id && directory) handler(*id, *directory);
  });
}

bool OpenCodeDatabase::isChildSession(const std::string& sessionId) const {
  bool isChild = false;
  forEachRow(path_, childQuery, [&](sqlite3_stmt*) { isChild = true; }, &sessionId);
  return isChild;
}

std::optional<OpenCodeDatabase::Version> OpenCodeDatabase::version() const {
  Version version;
  if (!fill(version.main, path_)) return std::nullopt;
  fill(version.log, path_ + "-wal");  // Without a write-ahead log its figures stay 0.
  return version;
}

}  // namespace vimbrel
