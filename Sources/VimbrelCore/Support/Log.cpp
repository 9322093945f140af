// SPDX-License-Identifier: Apache-2.0
#include "Support/Log.h"

#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/stat.h>
#include <systemd/sd-journal.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <utility>

namespace vimbrel {
namespace {

std::mutex sinkLock;
std::shared_ptr<logging::Sink> currentSink;
std::atomic<bool> hasSink{false};
std::atomic<LogLevel> threshold{LogLevel::debug};

bool isEnabled(LogLevel level) {
  if (level == LogLevel::error) return true;
  return level >= threshold.load(std::memory_order_relaxed) && hasSink.load(std::memory_order_relaxed);
}

void writeToStandardError(LogLevel level, std::string_view category, std::string_view text) {
  if (level != LogLevel::error) return;
  std::fprintf(stderr, "%.*s: %.*s\n", static_cast<int>(category.size()), category.data(),
               static_cast<int>(text.size()), text.data());
}

void write(LogLevel level, const std::string& subsystem, const std::string& category, const char* format,
           va_list arguments) {
  if (!isEnabled(level)) return;
  va_list again;
  va_copy(again, arguments);
  char brief[512];
  const int length = std::vsnprintf(brief, sizeof brief, format, arguments);
  std::string text;
  if (length >= static_cast<int>(sizeof brief)) {
    text.resize(static_cast<std::size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, again);
    text.pop_back();
  } else if (length > 0) {
    text.assign(brief, static_cast<std::size_t>(length));
  }
  va_end(again);

  std::shared_ptr<logging::Sink> sink;
  {
    const std::lock_guard guard(sinkLock);
    sink = currentSink;
  }
  if (sink) {
    (*sink)(level, subsystem, category, text);
  } else {
    writeToStandardError(level, category, text);
  }
}

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

#define VIMBREL_LOG(level)                                \
  va_list arguments;                                      \
  va_start(arguments, format);                            \
  write(level, subsystem_, category_, format, arguments); \
  va_end(arguments)

void Logger::debug(const char* format, ...) const { VIMBREL_LOG(LogLevel::debug); }
void Logger::info(const char* format, ...) const { VIMBREL_LOG(LogLevel::info); }
void Logger::error(const char* format, ...) const { VIMBREL_LOG(LogLevel::error); }

#undef VIMBREL_LOG

bool Logger::enabled(LogLevel level) const { return isEnabled(level); }

namespace logging {

Sink setSink(Sink sink) {
  auto next = sink ? std::make_shared<Sink>(std::move(sink)) : nullptr;
  const std::lock_guard guard(sinkLock);
  std::swap(currentSink, next);
  hasSink = currentSink != nullptr;
  return next ? std::move(*next) : Sink{};
}

void useSystemLog(const std::string& directory, const std::string& name, LogLevel lowest) {
  threshold = lowest;
  if (standardErrorIsJournal()) {
    setSink(writeToJournal);
    return;
  }
  std::error_code ignored;  // Without a directory, the file below cannot be opened, which is said there.
  std::filesystem::create_directories(directory, ignored);
  std::shared_ptr<spdlog::logger> file;
  try {
    constexpr std::size_t maximumSize = 1 << 20;
    constexpr std::size_t oldFiles = 2;
    auto target = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(directory + "/" + name + ".log",
                                                                         maximumSize, oldFiles);
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
