// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ProcReader.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "Platform/Linux/CommandText.h"

namespace vimbrel {
namespace {

/// Linux's own limit on the bytes of `/proc/PID/stat`'s flags: PF_KTHREAD of the kernel's sched.h.
constexpr unsigned long kernelThreadFlag = 0x00200000;
constexpr std::size_t smallFileBytes = 65536;

/// "1234/cmdline" without an allocation.
struct ProcPath {
  ProcPath(std::int32_t pid, const char* name) {
    auto* end = std::to_chars(text, text + 16, pid).ptr;
    *end++ = '/';
    std::strncpy(end, name, sizeof text - 1 - static_cast<std::size_t>(end - text));
  }
  char text[40]{};
};

template <typename Number>
bool parseNumber(std::string_view text, Number& number) {
  return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

std::string readWhole(int directory, const char* name) {
  const Fd file(::openat(directory, name, O_RDONLY | O_CLOEXEC));
  char buffer[128];
  const auto count = file ? ::read(file.get(), buffer, sizeof buffer) : 0;
  return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

/// The fields of `/proc/PID/stat` after the name, which may itself hold blanks and parentheses.
struct StatLine {
  std::string_view name;
  char state = '?';
  std::int32_t parent = 0;
  unsigned long flags = 0;
};

std::optional<StatLine> parseStat(std::string_view text) {
  const auto open = text.find('(');
  const auto close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  StatLine line;
  line.name = text.substr(open + 1, close - open - 1);
  auto rest = text.substr(close + 1);
  for (int field = 3; field <= 9; ++field) {
    if (!rest.starts_with(' ')) return std::nullopt;
    rest.remove_prefix(1);
    const auto word = rest.substr(0, rest.find(' '));
    if (word.empty()) return std::nullopt;
    if (field == 3) line.state = word.front();
    if (field == 4 && !parseNumber(word, line.parent)) return std::nullopt;
    if (field == 9 && !parseNumber(word, line.flags)) return std::nullopt;
    rest.remove_prefix(word.size());
  }
  return line;
}

}  // namespace

ProcReader::ProcReader()
    : directory_(::open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      // Untouched pages of it cost nothing; most command lines fit the first.
      buffer_(std::make_unique_for_overwrite<char[]>(commandText::maximumArgumentBytes)) {
  struct statfs fileSystem{};
  if (!directory_ || ::fstatfs(directory_.get(), &fileSystem) != 0) return;
  if (fileSystem.f_type != PROC_SUPER_MAGIC) return;
  char self[32];
  const auto length = ::readlinkat(directory_.get(), "self", self, sizeof self);
  std::int32_t ownPid = 0;
  if (length <= 0 || !parseNumber({self, static_cast<std::size_t>(length)}, ownPid)) return;
  if (ownPid != ::getpid() || !processorTime(ownPid)) return;
  usable_ = true;

  std::int32_t limit = 0;
  const auto limitText = readWhole(directory_.get(), "sys/kernel/pid_max");
  if (parseNumber(std::string_view(limitText), limit) && limit > 0) pidLimit_ = limit;
  // `ps` bounds the line, and the pid's column is as wide as the largest pid.
  const auto column = std::max<std::size_t>(std::to_string(pidLimit_).size(), 5);
  maximumCommandLength_ = commandText::maximumArgumentBytes - column - 1;

  // Containers may cover the file with one of their own whose last field means something else.
  Fd load(::openat(directory_.get(), "loadavg", O_RDONLY | O_CLOEXEC));
  struct statfs loadFileSystem{};
  if (load && ::fstatfs(load.get(), &loadFileSystem) == 0 && loadFileSystem.f_type == PROC_SUPER_MAGIC) {
    loadAverage_ = std::move(load);
  }
}

std::optional<std::int32_t> ProcReader::lastCreatedTask() const {
  if (!loadAverage_) return std::nullopt;
  char text[128];
  const auto count = ::pread(loadAverage_.get(), text, sizeof text, 0);
  if (count <= 0) return std::nullopt;
  std::string_view line(text, static_cast<std::size_t>(count));
  const auto space = line.rfind(' ');
  std::int32_t pid = 0;
  if (space == std::string_view::npos || !parseNumber(line.substr(space + 1), pid)) return std::nullopt;
  return pid;
}

bool ProcReader::listProcesses(std::vector<std::int32_t>& pids) {
  pids.clear();
  if (::lseek(directory_.get(), 0, SEEK_SET) != 0) return false;
  for (;;) {
    const auto count = ::syscall(SYS_getdents64, directory_.get(), buffer_.get(),
                                 static_cast<unsigned>(commandText::maximumArgumentBytes));
    if (count < 0) return false;
    if (count == 0) break;
    for (long at = 0; at < count;) {
      // linux_dirent64: inode (8), offset (8), record length (2), type (1), name.
      const char* record = buffer_.get() + at;
      unsigned short length = 0;
      std::memcpy(&length, record + 16, sizeof length);
      const char* name = record + 19;
      std::int32_t pid = 0;
      if (*name >= '1' && *name <= '9' && parseNumber(std::string_view(name), pid)) pids.push_back(pid);
      at += length;
    }
  }
  // The kernel lists them in order; a directory that is not the kernel's might not.
  if (!std::ranges::is_sorted(pids)) std::ranges::sort(pids);
  return true;
}

std::optional<std::size_t> ProcReader::readInto(std::int32_t pid, const char* name, std::size_t bound,
                                                int& code) {
  const ProcPath path(pid, name);
  const Fd file(::openat(directory_.get(), path.text, O_RDONLY | O_CLOEXEC));
  if (!file) {
    code = errno;
    return std::nullopt;
  }
  const auto count = ::read(file.get(), buffer_.get(), bound);
  if (count < 0) {
    code = errno;
    return std::nullopt;
  }
  return static_cast<std::size_t>(count);
}

ProcReader::Kind ProcReader::readCommand(std::int32_t pid, std::string& command) {
  int code = 0;
  const auto count = readInto(pid, "cmdline", commandText::maximumArgumentBytes, code);
  if (!count) return code == EACCES || code == EPERM ? Kind::unreadable : Kind::gone;
  if (*count == 0) return readName(pid, command);
  command = commandText::fromArguments({buffer_.get(), *count}, maximumCommandLength_);
  return Kind::program;
}

ProcReader::Kind ProcReader::readName(std::int32_t pid, std::string& command) {
  int code = 0;
  const auto count = readInto(pid, "stat", smallFileBytes, code);
  if (!count) return code == EACCES || code == EPERM ? Kind::unreadable : Kind::gone;
  const auto line = parseStat({buffer_.get(), *count});
  if (!line) return Kind::gone;
  const bool isZombie = line->state == 'Z' || line->state == 'X';
  command =
      commandText::fromName(line->name, isZombie ? commandText::Defunct::yes : commandText::Defunct::no);
  if (isZombie) return Kind::zombie;
  return (line->flags & kernelThreadFlag) != 0 ? Kind::kernelThread : Kind::program;
}

std::optional<std::chrono::nanoseconds> ProcReader::processorTime(std::int32_t pid) {
  // What clock_getcpuclockid() gives, less its own check, which is a second system call.
  constexpr clockid_t schedulerClock = 2;
  const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(pid) << 3U) | schedulerClock);
  timespec time{};
  if (::clock_gettime(clock, &time) != 0) return std::nullopt;
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

std::string_view ProcReader::readFile(std::int32_t pid, const char* name) {
  int ignored = 0;  // A file that cannot be read counts as empty.
  const auto count = readInto(pid, name, smallFileBytes, ignored);
  return {buffer_.get(), count.value_or(0)};
}

std::string ProcReader::readLink(std::int32_t pid, const char* name) const {
  const ProcPath path(pid, name);
  char target[4096];
  const auto length = ::readlinkat(directory_.get(), path.text, target, sizeof target);
  return {target, static_cast<std::size_t>(std::max<ssize_t>(length, 0))};
}

std::int32_t ProcReader::parentOf(std::int32_t pid) {
  const auto line = parseStat(readFile(pid, "stat"));
  return line ? line->parent : 0;
}

}  // namespace vimbrel
