// SPDX-License-Identifier: Apache-2.0
// Apart from Log.cpp: a program that logs to standard error links neither spdlog nor what that needs.
// The journal would be told this file and line with every message, which says nothing, and the path would
// differ with the place of the build.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "Support/Log.h"
#include "Support/VimbrelWritePolicy.h"

namespace vimbrel {
namespace {

/// systemd gives the device and inode of the journal's stream in JOURNAL_STREAM; it is ours if standard error
/// is it.
bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  if (std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
  struct stat status{};
  return fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void writeToJournal(LogLevel level, std::string_view subsystem, std::string_view category,
                    std::string_view text) {
  const int priority = level == LogLevel::error ? 3 : level == LogLevel::info ? 6 : 7;
  sd_journal_send("MESSAGE=%.*s", static_cast<int>(text.size()), text.data(), "PRIORITY=%d", priority,
                  "VIMBREL_SUBSYSTEM=%.*s", static_cast<int>(subsystem.size()), subsystem.data(),
                  "VIMBREL_CATEGORY=%.*s", static_cast<int>(category.size()), category.data(), nullptr);
}

}  // namespace

namespace logging {

void useSystemLog(const std::string& directory, const std::string& name, LogLevel lowest) {
  setThreshold(lowest);
  limitRepetition(
      {100, std::chrono::minutes{10}, [] { return std::chrono::steady_clock::now().time_since_epoch(); }});
  if (standardErrorIsJournal()) {
    setSink(writeToJournal);
    return;
  }
  const auto path = directory + "/" + name + ".log";
  // Asked before there is a file, so that a refusal is said on standard error.
  if (!VimbrelWritePolicy::mayWrite(path)) return;
  std::error_code ignored;  // Without a directory, the file below cannot be opened, which is said there.
  std::filesystem::create_directories(directory, ignored);
  // The library would write through a link, wherever it leads.
  if (std::filesystem::is_symlink(path, ignored)) std::filesystem::remove(path, ignored);
  std::shared_ptr<spdlog::logger> file;
  try {
    constexpr std::size_t maximumSize = 1 << 20;
    constexpr std::size_t oldFiles = 2;
    auto target = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(path, maximumSize, oldFiles);
    file = std::make_shared<spdlog::logger>(name, std::move(target));
    file->set_level(spdlog::level::debug);
    file->flush_on(spdlog::level::debug);
    // A full disk must not throw into the code that logs, nor repeat itself on the terminal for every
    // message.
    file->set_error_handler([](const std::string&) {});
    file->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %L %v");
  } catch (const spdlog::spdlog_ex& failure) {
    std::fprintf(stderr, "vimbrel: cannot write the log in %s: %s\n", directory.c_str(), failure.what());
    return;
  }
  setSink([file](LogLevel level, std::string_view, std::string_view category, std::string_view text) {
    const auto severity = level == LogLevel::error  ? spdlog::level::err
                          : level == LogLevel::info ? spdlog::level::info
                                                    : spdlog::level::debug;
    file->log(severity, "[{}] {}", category, text);
  });
}

}  // namespace logging
}  // namespace vimbrel
