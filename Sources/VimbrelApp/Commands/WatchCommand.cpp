// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Terminal/LiveScreen.h"

namespace vimbrel {

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

constexpr auto firstStatePatience = 2s;

/// The signals that end or suspend the view, as a descriptor.
Fd blockSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}) sigaddset(&set, signal);
  ::sigprocmask(SIG_BLOCK, &set, nullptr);
  return Fd(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

class Watch {
 public:
  Watch(ControlClient client, Fd signals) : client_(std::move(client)), signals_(std::move(signals)) {}

  /// The exit status; 128 + the signal's number when one ended it.
  int run() {
    // The first state comes with the answer to the subscription; before it, there is nothing true to show.
    takeStates(firstStatePatience);
    while (!result_) {
      screen_.draw(currentTime());
      pollfd polls[] = {
          {STDIN_FILENO, POLLIN, 0}, {client_.descriptor(), POLLIN, 0}, {signals_.get(), POLLIN, 0}};
      // Once a second for the ages that the view shows.
      ::poll(polls, 3, 1000);
      takeSignals();
      takeKeys();
      takeStates(0ms);
    }
    return *result_;
  }

  [[nodiscard]] const std::optional<ControlClientError>& failure() const { return failure_; }

 private:
  void takeSignals() {
    signalfd_siginfo info{};
    while (::read(signals_.get(), &info, sizeof info) == sizeof info) {
      const auto signal = static_cast<int>(info.ssi_signo);
      if (signal == SIGTSTP) {
        screen_.suspend();
      } else if (signal != SIGWINCH) {
        result_ = 128 + signal;
      }
    }
  }

  void takeKeys() {
    std::string keys;
    if (!FullScreen::readKeys(keys)) result_ = exitCode::done;
    for (const char key : keys) {
      if (key == 'q' || key == 'Q') result_ = exitCode::done;
      if (key == 'p' || key == 'P') steer("pause", {{"seconds", LiveScreen::pauseKeySeconds}});
      if (key == 'r' || key == 'R') steer("resume", json::object());
    }
  }

  void steer(std::string_view method, const json& params) {
    const auto state = client_.call(method, params, 5s);
    if (state) {
      screen_.setState(*state);
      screen_.setNotice("");
    } else if (state.error().fault == ControlClientError::Fault::disconnected) {
      fail(state.error());
    } else {
      screen_.setNotice(retell(state.error().text));
    }
  }

  /// Waits that long for the first, and takes all that are there.
  void takeStates(std::chrono::milliseconds patience) {
    while (!result_) {
      auto state = client_.nextNotification(patience);
      patience = 0ms;
      if (state) {
        screen_.setState(*state);
      } else {
        if (state.error().fault != ControlClientError::Fault::timedOut) fail(state.error());
        return;
      }
    }
  }

  void fail(const ControlClientError& error) {
    failure_ = error;
    result_ = exitCode::failed;
  }

  ControlClient client_;
  Fd signals_;
  LiveScreen screen_{say("q quit")};
  std::optional<int> result_;
  std::optional<ControlClientError> failure_;
};

}  // namespace

int watchCommand() {
  auto client = ControlClient::connect(controlSocketPath());
  if (!client) return reportFailure(client.error());
  if (!FullScreen::isPossible()) {
    return reportProblem(say("watch needs a terminal; for scripts use: vimbrel status --json"));
  }
  auto signals = blockSignals();
  if (const auto subscribed = client->call("subscribe", json::object()); !subscribed) {
    return reportFailure(subscribed.error());
  }
  int status = exitCode::failed;
  std::optional<ControlClientError> failure;
  {
    Watch watch(std::move(*client), std::move(signals));
    status = watch.run();
    failure = watch.failure();
  }
  if (failure) (void)reportProblem(say("Vimbrel has ended"));
  return status;
}

}  // namespace vimbrel
