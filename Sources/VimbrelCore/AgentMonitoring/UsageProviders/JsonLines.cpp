// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/JsonLines.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Support/Fd.h"

namespace vimbrel {
namespace {

constexpr std::size_t chunkSize = std::size_t{256} << 10U;

}  // namespace

bool isReadFromStart(const std::string& path, const JsonLinesPosition& position) {
  struct stat status{};
  return position.offset == 0 ||
         (::stat(path.c_str(), &status) == 0 && static_cast<std::uint64_t>(status.st_size) < position.offset);
}

/// Makes room behind the `held` bytes, which stay.
void JsonLinesReader::grow(std::size_t held) {
  const auto size = std::max(chunkSize, size_ * 2);
  auto larger = std::make_unique_for_overwrite<char[]>(size + padding);
  if (held != 0) std::memcpy(larger.get(), buffer_.get(), held);
  // What follows the last line may be read, though never used.
  std::memset(larger.get() + size, 0, padding);
  buffer_ = std::move(larger);
  size_ = size;
}

bool JsonLinesReader::feed(const std::function<long(char*, std::size_t)>& next, JsonLinesPosition& position,
                           const LineHandler& handler) {
  std::size_t held = 0;       // bytes at the buffer's start that belong to a line whose end is not seen yet
  bool skipping = false;      // inside a line that is too long
  std::uint64_t skipped = 0;  // bytes of it that were dropped
  for (;;) {
    if (size_ - held < chunkSize / 2) {
      if (held > longestLine) {
        skipping = true;
        skipped += held;
        held = 0;
      } else {
        grow(held);
      }
    }
    const auto got = next(buffer_.get() + held, size_ - held);
    if (got < 0) return false;
    if (got == 0) break;
    const char* const end = buffer_.get() + held + got;
    const char* start = buffer_.get();
    const char* search = buffer_.get() + held;
    while (const auto* newline =
               static_cast<const char*>(std::memchr(search, '\n', static_cast<std::size_t>(end - search)))) {
      const std::string_view line(start, static_cast<std::size_t>(newline - start));
      if (skipping || !line.empty()) {
        if (!skipping) handler({line, position.lines, true});
        ++position.lines;
      }
      position.offset += skipped + line.size() + 1;
      skipping = false;
      skipped = 0;
      start = search = newline + 1;
    }
    held = static_cast<std::size_t>(end - start);
    if (skipping) {
      skipped += held;
      held = 0;
    } else if (held != 0 && start != buffer_.get()) {
      std::memmove(buffer_.get(), start, held);
    }
  }
  if (held != 0 && !skipping && handler({std::string_view(buffer_.get(), held), position.lines, false})) {
    ++position.lines;
    position.offset += held;
  }
  return true;
}

JsonLinesResult JsonLinesReader::read(const std::string& path, JsonLinesPosition& position,
                                      const LineHandler& handler) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status{};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
    return JsonLinesResult::unreadable;
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size < position.offset) position = {};
  if (size == position.offset) return JsonLinesResult::unchanged;
  auto at = static_cast<off_t>(position.offset);
  const auto next = [&](char* memory, std::size_t room) -> long {
    for (;;) {
      const auto got = ::pread(file.get(), memory, room, at);
      if (got < 0 && errno == EINTR) continue;
      if (got > 0) at += got;
      return got;
    }
  };
  return feed(next, position, handler) ? JsonLinesResult::read : JsonLinesResult::unreadable;
}

}  // namespace vimbrel
