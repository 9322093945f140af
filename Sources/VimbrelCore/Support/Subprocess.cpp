// SPDX-License-Identifier: Apache-2.0
#include "Support/Subprocess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <optional>

#include "Support/Fd.h"

extern char** environ;

namespace vimbrel {
namespace {

using Clock = std::chrono::steady_clock;

class SpawnActions {
 public:
  SpawnActions() {
    posix_spawn_file_actions_init(&files);
    posix_spawnattr_init(&attributes);
  }
  ~SpawnActions() {
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attributes);
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;

  posix_spawn_file_actions_t files{};
  posix_spawnattr_t attributes{};
};

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return static_cast<int>(std::max<long long>(left, 0));
}

/// Waits for the process without blocking past the deadline. Absent when it is still running then.
bool reapUntil(pid_t pid, Clock::time_point deadline, int& status) {
  for (;;) {
    const auto reaped = ::waitpid(pid, &status, WNOHANG);
    if (reaped == pid || (reaped < 0 && errno == ECHILD)) return true;
    if (Clock::now() >= deadline) return false;
    ::poll(nullptr, 0, std::min(5, millisecondsUntil(deadline) + 1));
  }
}

/// A pipe's end from which this can be read, and then nothing more.
std::optional<Fd> readingEndOf(const std::string& text) {
  assert(text.size() <= PIPE_BUF);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  Fd reading(ends[0]);
  const Fd writing(ends[1]);
  if (::write(writing.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    return std::nullopt;
  return reading;
}

}  // namespace

std::expected<SubprocessResult, SubprocessFault> runProgram(const std::string& program,
                                                            const std::vector<std::string>& arguments,
                                                            const SubprocessBounds& bounds) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(SubprocessFault::cannotLaunch);
  Fd reading(ends[0]);
  Fd writing(ends[1]);

  SpawnActions actions;
  std::optional<Fd> input;
  if (bounds.input.empty()) {
    posix_spawn_file_actions_addopen(&actions.files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  } else {
    input = readingEndOf(bounds.input);
    if (!input) return std::unexpected(SubprocessFault::cannotLaunch);
    posix_spawn_file_actions_adddup2(&actions.files, input->get(), STDIN_FILENO);
  }
  posix_spawn_file_actions_adddup2(&actions.files, writing.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions.files, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addclosefrom_np(&actions.files, STDERR_FILENO + 1);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigfillset(&defaults);
  posix_spawnattr_setsigmask(&actions.attributes, &none);
  posix_spawnattr_setsigdefault(&actions.attributes, &defaults);
  // A session of its own: no terminal to read from, and one group to kill.
  posix_spawnattr_setflags(&actions.attributes,
                           POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> argv{const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  pid_t pid = 0;
  if (posix_spawn(&pid, program.c_str(), &actions.files, &actions.attributes, argv.data(), environ) != 0) {
    return std::unexpected(SubprocessFault::cannotLaunch);
  }
  writing.reset();

  const auto deadline = Clock::now() + bounds.timeout;
  const auto killGroup = [pid] {
    ::kill(-pid, SIGKILL);
    int ignored = 0;
    ::waitpid(pid, &ignored, 0);
  };

  SubprocessResult result;
  char buffer[16384];
  for (;;) {
    pollfd readable{reading.get(), POLLIN, 0};
    const int ready = ::poll(&readable, 1, millisecondsUntil(deadline));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) {
      killGroup();
      return std::unexpected(SubprocessFault::timedOut);
    }
    const auto count = ::read(reading.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    result.output.append(buffer, static_cast<std::size_t>(count));
    if (result.output.size() > bounds.maximumOutputBytes) {
      killGroup();
      return std::unexpected(SubprocessFault::tooMuchOutput);
    }
  }

  int status = 0;
  if (!reapUntil(pid, deadline, status)) {
    killGroup();
    return std::unexpected(SubprocessFault::timedOut);
  }
  ::kill(-pid, SIGKILL);  // What it left running in the background does not outlive it.
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

}  // namespace vimbrel
