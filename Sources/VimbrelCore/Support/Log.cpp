// SPDX-License-Identifier: Apache-2.0
#include "Support/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

namespace vimbrel {
namespace {

std::mutex sinkLock;
std::shared_ptr<logging::Sink> currentSink;
std::atomic<bool> hasSink{false};
std::atomic<LogLevel> threshold{LogLevel::debug};

/// What one statement said in the current period.
struct Repetition {
  std::chrono::nanoseconds since{0};
  int heard = 0;
  long leftOut = 0;
};

struct Limiter {
  std::atomic<bool> isOn{false};
  std::mutex lock;
  logging::RepetitionLimit limit;
  std::unordered_map<const char*, Repetition>
      repetitions;  // by the address of the format, which is a constant
};

/// Never destroyed: a thread may log while the process ends.
Limiter& limiter() {
  static auto* const only = new Limiter;
  return *only;
}

/// Nothing when this message goes beyond the limit, else how many did before it.
std::optional<long> leftOutBefore(const char* format) {
  auto& [isOn, lock, limit, repetitions] = limiter();
  if (!isOn.load(std::memory_order_relaxed)) return 0;
  const std::lock_guard guard(lock);
  if (limit.lines == 0) return 0;
  const auto now = limit.uptime();
  auto& repetition = repetitions[format];
  if (repetition.heard == 0 || now - repetition.since >= limit.period) {
    repetition.since = now;
    repetition.heard = 0;
  }
  if (repetition.heard == limit.lines) {
    ++repetition.leftOut;
    return std::nullopt;
  }
  ++repetition.heard;
  return std::exchange(repetition.leftOut, 0);
}

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
  const auto leftOut = leftOutBefore(format);
  if (!leftOut) return;
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
  if (*leftOut > 0) text += " (" + std::to_string(*leftOut) + " more like this were left out before it)";

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

void limitRepetition(RepetitionLimit wanted) {
  auto& [isOn, lock, limit, repetitions] = limiter();
  const std::lock_guard guard(lock);
  limit = std::move(wanted);
  repetitions.clear();
  isOn.store(limit.lines > 0, std::memory_order_relaxed);
}

void setThreshold(LogLevel lowest) { threshold = lowest; }

}  // namespace logging
}  // namespace vimbrel
