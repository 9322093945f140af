// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <expected>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// A failed file operation: what was tried, and `errno`. `text()` is a sentence to show.
struct FileError {
  std::string operation;
  std::string path;
  int code = 0;
  [[nodiscard]] std::string text() const;
  bool operator==(const FileError&) const = default;
};

/// Whether the new contents reach the disk before the call returns. Without it, a crash of the program loses
/// nothing, a crash of the machine may keep the old contents.
enum class Durability { process, machine };

/// Replaces the file's contents in one step: a reader, or the next start after a crash at any moment, sees
/// all of the old contents or all of the new. A symbolic link is replaced, not followed. Any thread and any
/// number of processes: of several writers one wins.
///
/// The new contents have no name until they are whole, then "<path>.new" for a moment. A process that is
/// killed leaves at most that one file, which the next replacement takes over; file systems without nameless
/// files get a temporary file with a random name instead.
[[nodiscard]] std::expected<void, FileError> replaceFile(const std::string& path, std::string_view contents,
                                                         mode_t mode = 0600,
                                                         Durability durability = Durability::process);

/// The whole file, if it is a regular file of at most `maximumBytes` (EFBIG otherwise).
[[nodiscard]] std::expected<std::string, FileError> readFile(const std::string& path,
                                                             std::size_t maximumBytes = 1U << 30U);

/// Creates the directory and those above it that are missing, each with `mode` (existing ones keep theirs).
[[nodiscard]] std::expected<void, FileError> createDirectories(const std::string& path, mode_t mode = 0700);

}  // namespace vimbrel
