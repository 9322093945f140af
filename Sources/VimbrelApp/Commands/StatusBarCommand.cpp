// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Terminal/StatusBarLine.h"

namespace vimbrel {

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

/// A bar starts with the desktop, often before the application does.
constexpr int retryMilliseconds = 2000;

/// Prints a line for each change, until the bar goes away.
class Follower {
 public:
  explicit Follower(std::function<std::string(const json* state)> line) : line_(std::move(line)) {}

  int run() {
    while (isRead_) {
      auto client = ControlClient::connect(controlSocketPath());
      if (client && client->call("subscribe", json::object())) {
        while (isRead_ && takeStates(*client)) wait(client->descriptor(), -1);
      }
      show(nullptr);
      wait(-1, retryMilliseconds);
    }
    return exitCode::done;
  }

 private:
  bool takeStates(ControlClient& client) {
    for (;;) {
      const auto state = client.nextNotification(0ms);
      if (!state) return state.error().fault == ControlClientError::Fault::timedOut;
      show(&*state);
    }
  }

  void show(const json* state) {
    const auto line = line_(state);
    if (line == last_ || !isRead_) return;
    last_ = line;
    // A bar that is gone ends this program by SIGPIPE, unless its parent had that ignored.
    isRead_ = std::printf("%s\n", line.c_str()) >= 0 && std::fflush(stdout) == 0;
  }

  /// Until the descriptor is readable, the time is up, or nobody reads the output any more.
  void wait(int descriptor, int milliseconds) {
    pollfd polls[] = {{descriptor, POLLIN, 0}, {STDOUT_FILENO, 0, 0}};
    ::poll(polls, 2, milliseconds);
    if ((polls[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) isRead_ = false;
  }

  const std::function<std::string(const json* state)> line_;
  std::string last_;
  bool isRead_ = true;
};

}  // namespace

int statusBarCommand(const std::string& formatName, bool follow, Output output) {
  const auto format = statusBarFormatFromName(formatName.empty() ? "plain" : formatName);
  if (!format) return reportUsage(say("--format takes plain, waybar, i3blocks or polybar"));
  const auto line = [format, output](const json* state) {
    if (output == Output::json) return state == nullptr ? std::string("null") : state->dump();
    return state == nullptr ? stoppedBarLine(*format) : statusBarLine(*state, *format, currentTime());
  };
  if (follow) return Follower(line).run();
  const auto state = ask("status", json::object());
  // The bar shows what the line says; the exit status is for scripts.
  if (!state && state.error() != exitCode::notRunning) return state.error();
  std::printf("%s\n", line(state ? &*state : nullptr).c_str());
  return state ? exitCode::done : state.error();
}

}  // namespace vimbrel
