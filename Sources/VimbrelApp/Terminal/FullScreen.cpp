// SPDX-License-Identifier: Apache-2.0
#include "Terminal/FullScreen.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include "Support/Fd.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {
namespace {

// Private modes of xterm that every current terminal knows: 1049 alternate screen, 25 cursor.
constexpr std::string_view enterSequence = "\x1b[?1049h\x1b[?25l\x1b[2J";
constexpr std::string_view leaveSequence = "\x1b[?25h\x1b[?1049l";

constexpr std::array crashSignals{SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL};

termios originalMode;
/// The terminal opened anew, so that it can be non-blocking without being so for the shell that shares
/// standard output with this process.
Fd ownOutput;
int outputDescriptor() { return ownOutput ? ownOutput.get() : STDOUT_FILENO; }
std::atomic<bool> isTaken{false};

/// Async-signal-safe.
void giveBack() {
  if (!isTaken.exchange(false)) return;
  // Nothing can be done about a terminal that is gone.
  (void)!::write(outputDescriptor(), leaveSequence.data(), leaveSequence.size());
  ::tcsetattr(STDIN_FILENO, TCSANOW, &originalMode);
}

void crashed(int signal) {
  giveBack();
  ::raise(signal);  // With SA_RESETHAND the default action ends the process, with its core dump.
}

/// Writes what the terminal takes. The rest of a frame is dropped when it takes nothing for a while, because
/// the process has more to do than to draw; the next frame is whole again.
void writeToTerminal(std::string_view text) {
  constexpr int patienceMilliseconds = 100;
  while (!text.empty()) {
    const auto count = ::write(outputDescriptor(), text.data(), text.size());
    if (count > 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd poll{outputDescriptor(), POLLOUT, 0};
      if (::poll(&poll, 1, patienceMilliseconds) != 1) return;
    } else if (errno != EINTR) {
      return;  // The terminal is gone; SIGHUP or the end of input tells.
    }
  }
}

}  // namespace

bool FullScreen::isPossible() {
  const char* terminal = std::getenv("TERM");
  return ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1 && terminal != nullptr &&
         *terminal != '\0' && std::string_view(terminal) != "dumb";
}

FullScreen::FullScreen() {
  static const bool registered = std::atexit(giveBack) == 0;
  (void)registered;
  struct sigaction action{};
  action.sa_handler = crashed;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : crashSignals) ::sigaction(signal, &action, nullptr);
  enter();
}

FullScreen::~FullScreen() { leave(); }

void FullScreen::enter() {
  if (::tcgetattr(STDIN_FILENO, &originalMode) != 0) return;
  if (char name[256]; !ownOutput && ::ttyname_r(STDOUT_FILENO, name, sizeof name) == 0) {
    ownOutput.reset(::open(name, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  }
  isTaken = true;
  auto mode = originalMode;
  mode.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
  mode.c_iflag &= ~static_cast<tcflag_t>(IXON);  // The stop key would stop more than the drawing.
  mode.c_cc[VMIN] = 1;
  mode.c_cc[VTIME] = 0;
  ::tcsetattr(STDIN_FILENO, TCSANOW, &mode);
  writeToTerminal(enterSequence);
}

void FullScreen::leave() { giveBack(); }

void FullScreen::show(const std::vector<std::string>& lines) {
  const auto size = terminalSize(STDOUT_FILENO);
  // Lines are written over the old ones and cleared to their ends, which does not flicker as clearing the
  // whole screen first does.
  std::string frame = "\x1b[H";
  for (std::size_t row = 0; row < size.rows; ++row) {
    if (row > 0) frame += "\r\n";
    if (row < lines.size()) frame += lines[row];
    frame += "\x1b[K";
  }
  writeToTerminal(frame);
}

void FullScreen::suspend() {
  leave();
  ::raise(SIGSTOP);
  enter();
}

bool FullScreen::readKeys(std::string& keys) {
  while (true) {
    pollfd poll{STDIN_FILENO, POLLIN, 0};
    if (::poll(&poll, 1, 0) != 1) return true;
    char buffer[64];
    const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count > 0) {
      keys.append(buffer, static_cast<std::size_t>(count));
    } else if (count == 0 || errno != EINTR) {
      return false;
    }
  }
}

}  // namespace vimbrel
