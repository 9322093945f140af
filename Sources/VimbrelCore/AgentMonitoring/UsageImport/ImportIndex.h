// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace vimbrel {

/// What a file was like when it was last read to its end.
struct FileStamp {
  std::uint64_t size = 0;
  std::int64_t modified = 0;  ///< nanoseconds since 1970
  bool operator==(const FileStamp&) const = default;
};

/// The stamp of a file now; absent when there is no such file.
[[nodiscard]] std::optional<FileStamp> stampOf(const std::string& path);

/// Kept beside the usage store: which log files were read in which state, and which directory each session
/// belongs to. Losing it costs a reading of the whole history and nothing else. Any thread.
class ImportIndex {
 public:
  /// Reads the file, if there is one that can be read.
  explicit ImportIndex(std::string path = defaultPath());

  [[nodiscard]] bool isUnchanged(const std::string& file, const FileStamp& stamp) const;
  void setRead(const std::string& file, const FileStamp& stamp);
  /// The directory that a session's log belongs to; absent when it is not known.
  [[nodiscard]] std::optional<std::string> projectOf(std::string_view session) const;
  void setProject(const std::string& session, const std::string& directory);
  /// Forgets which files were read, so that the next import reads all of them.
  void forgetFiles();
  /// Removes the index at `path`, with every path and directory in it.
  static void remove(const std::string& path = defaultPath());
  /// Writes what changed. False when that failed, which is logged and loses nothing but time.
  bool save();

  /// "Vimbrel/usage_index.json" under the user's application support directory.
  [[nodiscard]] static std::string defaultPath();

 private:
  const std::string path_;
  mutable std::mutex lock_;
  std::unordered_map<std::string, FileStamp> files_;
  std::map<std::string, std::string, std::less<>> projects_;
  bool isChanged_ = false;
};

}  // namespace vimbrel
