// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

namespace vimbrel {

enum class LogLevel { debug, info, error };

/// A handle on the system log for one category ("coordinator", "agents", "hooks", …) of one subsystem. Copies
/// are cheap. Messages are printf-style formats, so that what is logged can be searched for as it stands in
/// the source. Any thread.
class Logger {
 public:
  explicit Logger(std::string category, std::string subsystem = "com.vimbrel.app")
      : category_(std::move(category)), subsystem_(std::move(subsystem)) {}

  void debug(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void info(const char* format, ...) const __attribute__((format(printf, 2, 3)));
  void error(const char* format, ...) const __attribute__((format(printf, 2, 3)));

  /// False when a message at this level would be dropped: saves the work of preparing its arguments.
  [[nodiscard]] bool enabled(LogLevel level) const;
  [[nodiscard]] const std::string& category() const { return category_; }

 private:
  std::string category_;
  std::string subsystem_;
};

/// Where messages go. Until it is set, messages at level error go to standard error and the rest nowhere.
namespace logging {

using Sink = std::function<void(LogLevel, std::string_view subsystem, std::string_view category,
                                std::string_view text)>;

/// Replaces the sink for the whole process; an empty sink restores the initial one. Returns the one before.
Sink setSink(Sink sink);

/// Drops messages below this level unformatted.
void setThreshold(LogLevel lowest);

/// How often one statement (one format string) may be heard.
struct RepetitionLimit {
  int lines = 0;  ///< within `period`; 0 is no limit, as at the start
  std::chrono::nanoseconds period{0};
  std::function<std::chrono::nanoseconds()> uptime;  ///< any clock that never goes back; any thread
};

/// Messages above the limit go nowhere; how many they were is said with the next of that statement. What goes
/// on for hours, such as a session that stays stale, must not push everything else out of the log.
void limitRepetition(RepetitionLimit limit);

/// Sends messages to the journal when standard error is connected to it, else to a file `name`.log in the
/// given directory, which is rotated at 1 MiB with two old files kept. Messages below `threshold` are dropped
/// unformatted. Of one statement a hundred messages are let through in ten minutes.
void useSystemLog(const std::string& directory, const std::string& name, LogLevel threshold);

}  // namespace logging
}  // namespace vimbrel
