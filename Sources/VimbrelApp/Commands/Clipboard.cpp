// SPDX-License-Identifier: Apache-2.0
#include "Commands/Clipboard.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <string_view>
#include <vector>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "Say.h"
#include "Support/Fd.h"

extern char** environ;

namespace vimbrel {
namespace {

/// A program that takes the clipboard's new contents on its standard input, where this variable is set.
struct ClipboardProgram {
  const char* display;
  const char* name;
  std::vector<const char*> arguments;
};

const std::vector<ClipboardProgram>& clipboardPrograms() {
  static const std::vector<ClipboardProgram> programs{
      {"WAYLAND_DISPLAY", "wl-copy", {}},
      {"DISPLAY", "xclip", {"-selection", "clipboard"}},
      {"DISPLAY", "xsel", {"--clipboard", "--input"}},
  };
  return programs;
}

bool isSet(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && *value != '\0';
}

bool writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const auto count = ::send(descriptor, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

/// Runs the program with the text as its input. It may leave a process behind that serves the clipboard: what
/// is waited for is the program itself.
bool feed(const std::string& path, const ClipboardProgram& program, const std::string& text) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return false;
  Fd ours(ends[0]);
  Fd theirs(ends[1]);
  // A display that hangs must not hang its user.
  const timeval patience{.tv_sec = 5, .tv_usec = 0};
  ::setsockopt(ours.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
  std::vector<char*> arguments{const_cast<char*>(program.name)};
  for (const auto* argument : program.arguments) arguments.push_back(const_cast<char*>(argument));
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, theirs.get(), STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  // What stays behind must end as its user's other programs do, whatever this one holds back.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = 0;
  const bool isStarted =
      ::posix_spawn(&pid, path.c_str(), &actions, &attributes, arguments.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (!isStarted) return false;
  theirs.reset();
  const bool isWritten = writeAll(ours.get(), text);
  ours.reset();
  int status = 0;
  for (int waited = 0; ::waitpid(pid, &status, WNOHANG) == 0; waited += 10) {
    if (waited >= 5000) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return false;
    }
    ::poll(nullptr, 0, 10);
  }
  return isWritten && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string base64(std::string_view text) {
  constexpr std::string_view digits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  for (std::size_t i = 0; i < text.size(); i += 3) {
    const auto piece = text.substr(i, 3);
    unsigned bits = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      bits = bits << 8U | (k < piece.size() ? static_cast<unsigned char>(piece[k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      result += k <= piece.size() ? digits[(bits >> (18U - 6U * k)) & 63U] : '=';
    }
  }
  return result;
}

/// The control sequence with which programs set the clipboard of the terminal that shows them. Nothing tells
/// whether it does.
bool askTerminal(const std::string& text) {
  const Fd terminal(::open("/dev/tty", O_WRONLY | O_CLOEXEC | O_NOCTTY));
  if (!terminal) return false;
  const auto sequence = "\x1b]52;c;" + base64(text) + "\x07";
  return ::write(terminal.get(), sequence.data(), sequence.size()) == static_cast<ssize_t>(sequence.size());
}

}  // namespace

std::expected<std::string, std::string> copyToClipboard(const std::string& text) {
  const char* variable = std::getenv("PATH");
  const auto searchPath = variable == nullptr ? std::nullopt : std::optional<std::string>(variable);
  for (const auto& program : clipboardPrograms()) {
    if (!isSet(program.display)) continue;
    const auto path = findExecutable(searchPath, program.name);
    if (path && feed(*path, program, text)) return program.name;
  }
  if (askTerminal(text)) return say("the terminal");
  if (isSet("WAYLAND_DISPLAY")) return std::unexpected(say("nothing here can copy; install wl-clipboard"));
  if (isSet("DISPLAY")) return std::unexpected(say("nothing here can copy; install xclip"));
  return std::unexpected(say("there is no clipboard here: neither a display nor a terminal"));
}

}  // namespace vimbrel
