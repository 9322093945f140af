// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageJournal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <filesystem>

namespace vimbrel {
namespace {

constexpr std::size_t longestLine = 1 << 20;

/// Hands out the complete lines of a file in bounded memory and returns how many bytes they took, line breaks
/// included; `rest` is what follows the last line break. Overlong lines are handed out empty.
std::size_t readLines(int descriptor, std::string& rest, const std::function<void(std::string_view)>& take) {
  std::string buffer;
  std::size_t complete = 0;
  bool isOverlong = false;
  for (;;) {
    const auto kept = buffer.size();
    buffer.resize(kept + (1 << 17));
    const auto count = ::read(descriptor, buffer.data() + kept, buffer.size() - kept);
    if (count < 0 && errno == EINTR) {
      buffer.resize(kept);
      continue;
    }
    buffer.resize(kept + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count <= 0) break;
    std::size_t start = 0;
    for (auto end = buffer.find('\n', kept); end != std::string::npos; end = buffer.find('\n', start)) {
      take(isOverlong ? std::string_view{} : std::string_view(buffer).substr(start, end - start));
      isOverlong = false;
      start = end + 1;
    }
    complete += start;
    buffer.erase(0, start);
    if (buffer.size() > longestLine) {
      complete += buffer.size();
      buffer.clear();
      isOverlong = true;
    }
  }
  rest = std::move(buffer);
  return complete;
}

}  // namespace

std::size_t UsageJournal::replay(const std::function<bool(std::string_view)>& accept) {
  const std::filesystem::path prefix(prefix_);
  const auto namePrefix = prefix.filename().string() + ".";
  std::error_code error;
  for (std::filesystem::directory_iterator entry(prefix.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    const auto name = entry->path().filename().string();
    if (!name.starts_with(namePrefix)) continue;
    std::uint64_t number = 0;
    const char* last = name.data() + name.size();
    const auto parsed = std::from_chars(name.data() + namePrefix.size(), last, number);
    if (parsed.ec == std::errc{} && parsed.ptr == last && number < UINT64_MAX)
      segments_.emplace(number, Segment{});
  }
  std::size_t unreadable = 0;
  for (auto& [number, segment] : segments_) {
    if (!replaySegment(number, segment, unreadable, accept)) segment.isDamaged = true;
    next_ = number + 1;
  }
  return unreadable;
}

bool UsageJournal::replaySegment(std::uint64_t number, Segment& segment, std::size_t& unreadable,
                                 const std::function<bool(std::string_view)>& accept) {
  // Its end may have to be mended; where that is not allowed, nothing of it is taken.
  const auto opened = openOwnFile(path(number), O_RDWR | O_NONBLOCK);
  const int descriptor = opened ? opened->get() : -1;
  struct stat status{};
  if (!opened || ::fstat(descriptor, &status) != 0 || !S_ISREG(status.st_mode)) {
    ++unreadable;
    return false;
  }
  const auto before = unreadable;
  std::string rest;
  segment.bytes = readLines(descriptor, rest, [&](std::string_view line) {
    if (!accept(line)) ++unreadable;
  });
  // A line that lacks only its line break was written whole. Lines are appended after the last segment's end
  // only, but a segment without a torn tail can be looked at with ordinary tools.
  if (!rest.empty()) {
    if (accept(rest) && ::lseek(descriptor, 0, SEEK_END) >= 0 && ::write(descriptor, "\n", 1) == 1) {
      segment.bytes += rest.size() + 1;
    } else if (::ftruncate(descriptor, static_cast<off_t>(segment.bytes)) != 0) {
      return false;
    }
  }
  return unreadable == before;
}

std::expected<void, OwnFileError> UsageJournal::append(std::string_view lines) {
  if (!file_) {
    auto opened = openOwnFile(path(next_), O_WRONLY | O_CREAT | O_APPEND);
    if (!opened) return std::unexpected(std::move(opened.error()));
    file_ = std::make_shared<Fd>(*std::move(opened));
    segments_[next_];
    endsInTornLine_ = false;
  }
  auto& segment = segments_[next_];
  std::string repaired;
  if (endsInTornLine_) {
    repaired = "\n" + std::string(lines);
    lines = repaired;
  }
  std::size_t written = 0;
  while (written < lines.size()) {
    const auto count = ::write(file_->get(), lines.data() + written, lines.size() - written);
    if (count < 0 && errno == EINTR) continue;
    if (count >= 0) {
      written += static_cast<std::size_t>(count);
      continue;
    }
    const int code = errno;
    if (written != 0 && ::ftruncate(file_->get(), static_cast<off_t>(segment.bytes)) != 0) {
      segment.bytes += written;
      endsInTornLine_ = true;
    }
    return std::unexpected(OwnFileError{FileError{"append to", path(next_), code}});
  }
  segment.bytes += written;
  endsInTornLine_ = false;
  return {};
}

std::uint64_t UsageJournal::rotate() {
  const auto ended = segments_.empty() ? next_ - 1 : segments_.rbegin()->first;
  next_ = ended + 1;
  file_.reset();
  return ended;
}

void UsageJournal::removeThrough(std::uint64_t number, const std::string& asideSuffix) {
  while (!segments_.empty() && segments_.begin()->first <= number) {
    const auto& [oldest, segment] = *segments_.begin();
    if (segment.isDamaged && !asideSuffix.empty()) {
      ::rename(path(oldest).c_str(), (path(oldest) + asideSuffix).c_str());
    } else {
      ::unlink(path(oldest).c_str());
    }
    segments_.erase(segments_.begin());
  }
}

std::size_t UsageJournal::bytes() const {
  std::size_t sum = 0;
  for (const auto& [number, segment] : segments_) sum += segment.bytes;
  return sum;
}

}  // namespace vimbrel
