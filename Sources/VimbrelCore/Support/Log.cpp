// SPDX-License-Identifier: Apache-2.0
#include "Support/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
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

void setThreshold(LogLevel lowest) { threshold = lowest; }

}  // namespace logging
}  // namespace vimbrel
