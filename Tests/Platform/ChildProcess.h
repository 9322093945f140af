// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Support/Fd.h"

namespace vimbrel {

/// A child that waits until it is told to execute a program, ended and reaped with this object.
class ChildProcess {
 public:
  /// `prepare` runs in the child before it waits.
  explicit ChildProcess(const std::function<void()>& prepare = [] {}) {
    int orders[2];
    int answers[2];
    if (::pipe2(orders, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) return;
    const Fd childOrders(orders[0]);
    const Fd childAnswers(answers[1]);
    orders_ = Fd(orders[1]);
    answers_ = Fd(answers[0]);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::close(orders[1]);
      prepare();
      ::dup2(answers[1], STDOUT_FILENO);
      (void)!::write(STDOUT_FILENO, "r", 1);
      obey(orders[0]);
    }
    awaitAnswer();
  }
  ~ChildProcess() { end(); }
  ChildProcess(ChildProcess&& other) noexcept
      : pid_(std::exchange(other.pid_, 0)),
        orders_(std::move(other.orders_)),
        answers_(std::move(other.answers_)) {}
  ChildProcess& operator=(ChildProcess&&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }

  /// Makes the child execute `program`, once, which shows `arguments` and waits; returns when it runs.
  void exec(const std::vector<std::string>& arguments, const std::string& program = PATIENT_PROGRAM) {
    std::string order = program + '\0';
    for (const auto& argument : arguments) order += argument + '\0';
    (void)!::write(orders_.get(), order.data(), order.size());
    orders_.reset();
    awaitAnswer();
  }

  /// Ends the child; it stays a zombie.
  void endUnreaped() const {
    ::kill(pid_, SIGKILL);
    siginfo_t information{};
    ::waitid(P_PID, static_cast<id_t>(pid_), &information, WEXITED | WNOWAIT);
  }
  void end() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(std::exchange(pid_, 0), nullptr, 0);
  }

 private:
  void awaitAnswer() const {
    char byte = 0;
    (void)!::read(answers_.get(), &byte, 1);
  }
  [[noreturn]] static void obey(int orders) {
    static char buffer[1 << 18];
    std::size_t length = 0;
    for (ssize_t count = 1; count > 0; length += static_cast<std::size_t>(std::max<ssize_t>(count, 0))) {
      count = ::read(orders, buffer + length, sizeof buffer - length);
    }
    if (length == 0) ::_exit(0);
    std::vector<char*> arguments;
    for (char* at = buffer; at < buffer + length; at += std::string_view(at).size() + 1)
      arguments.push_back(at);
    arguments.push_back(nullptr);
    ::execv(arguments.front(), arguments.data() + 1);
    ::_exit(1);
  }

  pid_t pid_ = 0;
  Fd orders_;
  Fd answers_;
};

}  // namespace vimbrel
