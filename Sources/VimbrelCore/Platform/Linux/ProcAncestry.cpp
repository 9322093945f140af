// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ProcAncestry.h"

#include <fcntl.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <optional>
#include <string_view>

#include "Platform/Linux/CommandText.h"
#include "Support/Fd.h"

namespace vimbrel {
namespace {

constexpr std::size_t mostAncestors = 32;
/// Enough to recognise a program by; the rest of a long command line is its arguments.
constexpr std::size_t commandBytes = 4096;

std::string readProc(std::int32_t pid, const char* name) {
  char path[40];
  std::snprintf(path, sizeof path, "/proc/%d/%s", pid, name);
  const Fd file(::open(path, O_RDONLY | O_CLOEXEC));
  char buffer[commandBytes];
  const auto count = file ? ::read(file.get(), buffer, sizeof buffer) : 0;
  return {buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0))};
}

struct Stat {
  char state = '?';
  std::int32_t parent = 0;
  std::uint64_t startMark = 0;
};

/// Fields 3, 4 and 22 of proc(5)'s stat; the name before them may hold anything.
std::optional<Stat> readStat(std::int32_t pid) {
  const auto text = readProc(pid, "stat");
  const auto close = text.rfind(')');
  if (close == std::string::npos) return std::nullopt;
  std::string_view rest(text);
  rest.remove_prefix(close + 1);
  Stat stat;
  const auto number = [](std::string_view word, auto& value) {
    return std::from_chars(word.data(), word.data() + word.size(), value).ec == std::errc{};
  };
  for (int field = 3; field <= 22; ++field) {
    const auto start = rest.find_first_not_of(' ');
    if (start == std::string_view::npos) return std::nullopt;
    rest.remove_prefix(start);
    const auto word = rest.substr(0, rest.find(' '));
    rest.remove_prefix(word.size());
    if (field == 3) stat.state = word.front();
    if (field == 4 && !number(word, stat.parent)) return std::nullopt;
    if (field == 22 && !number(word, stat.startMark)) return std::nullopt;
  }
  return stat;
}

Seconds sinceBoot() {
  timespec time{};
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return Seconds{static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec)};
}

}  // namespace

std::vector<AncestorProcess> ProcAncestry::ancestorsOf(std::int32_t pid) {
  static const auto ticksPerSecond = static_cast<double>(::sysconf(_SC_CLK_TCK));
  std::vector<AncestorProcess> ancestors;
  const auto now = sinceBoot();
  while (pid > 0 && ancestors.size() < mostAncestors) {
    const auto stat = readStat(pid);
    if (!stat) break;
    const Seconds started{static_cast<double>(stat->startMark) / ticksPerSecond};
    ancestors.push_back({{pid, stat->startMark},
                         commandText::fromArguments(readProc(pid, "cmdline"), commandBytes),
                         std::max(now - started, Seconds{0})});
    pid = stat->parent;
  }
  return ancestors;
}

bool ProcAncestry::isAlive(const ProcessIdentity& process) {
  const auto stat = readStat(process.pid);
  return stat && stat->startMark == process.startMark && stat->state != 'Z' && stat->state != 'X';
}

}  // namespace vimbrel
