// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vimbrel {

/// How far a growing log of one JSON document a line has been read.
struct JsonLinesPosition {
  std::uint64_t offset = 0;  ///< bytes: the start of the first line that was not taken yet
  std::uint64_t lines = 0;   ///< lines before `offset` that are not empty: the number of the next one
  bool operator==(const JsonLinesPosition&) const = default;
};

enum class JsonLinesResult {
  unreadable,  ///< cannot be opened or read; the position is as it was
  unchanged,   ///< nothing was added
  read,        ///< at least one byte was added since the position
};

/// Whether a reading of the file at `position` begins at its start: nothing was read yet, or the file has
/// become shorter since.
[[nodiscard]] bool isReadFromStart(const std::string& path, const JsonLinesPosition& position);

/// Reads logs of one JSON document a line into one buffer that it uses again and again. Not for several
/// threads.
class JsonLinesReader {
 public:
  /// Lines longer than this are counted and left out: such a line is a pasted file or a snapshot, and no
  /// usage record is a hundredth as long.
  static constexpr std::size_t longestLine = std::size_t{8} << 20U;
  /// At least this many readable bytes follow each line that is handed out, as vectorised parsers want.
  static constexpr std::size_t padding = 64;

  struct Line {
    std::string_view text;     ///< without its newline, never empty
    std::uint64_t number = 0;  ///< from the start of the file, empty lines not counted
    bool isTerminated =
        true;  ///< false for a last line that has no newline yet: it may still be being written
  };
  /// Takes one line. For one that is not terminated the result says whether it is complete, that is whether
  /// it parses; for others it is ignored.
  using LineHandler = std::function<bool(const Line& line)>;

  /// Reads what was added to the file since `position` and moves the position behind it. A last line without
  /// its newline that is not complete stays unread. A file that is shorter than the position is read from its
  /// start.
  JsonLinesResult read(const std::string& path, JsonLinesPosition& position, const LineHandler& handler);

  /// Feeds lines from anything that gives bytes: `next` fills the given memory and returns how many bytes it
  /// wrote, 0 at the end, less than 0 on failure. Starts at `position`, which counts what `next` gives. False
  /// on failure.
  bool feed(const std::function<long(char* memory, std::size_t size)>& next, JsonLinesPosition& position,
            const LineHandler& handler);

 private:
  void grow(std::size_t held);

  std::unique_ptr<char[]> buffer_;  // taken with the first read
  std::size_t size_ = 0;            // without the padding
};

}  // namespace vimbrel
