// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// The real helper as a process of its own, on a socket in a temporary directory, ended with the object.
class HelperProcess {
 public:
  /// `prepare` is given the directory before the start; what it returns is handed over as a service manager
  /// hands over sockets.
  explicit HelperProcess(std::vector<std::string> arguments,
                         const std::function<std::vector<Fd>(const std::string&)>& prepare = nullptr) {
    const auto handedOver = prepare ? prepare(directory.path()) : std::vector<Fd>{};
    arguments.insert(arguments.begin(), {VIMBREL_HELPER, "--socket", socketPath(), "--state", stateFile()});
    pid_ = ::fork();
    if (pid_ == 0) {
      ::setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);  // never the machine's own bus
      std::vector<char*> argv;
      for (auto& argument : arguments) argv.push_back(argument.data());
      argv.push_back(nullptr);
      ::freopen(directory.file("log").c_str(), "w", stderr);
      int next = 3;
      for (const auto& socket : handedOver) ::dup2(::fcntl(socket.get(), F_DUPFD_CLOEXEC, 64), next++);
      if (next > 3) {
        ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
        ::setenv("LISTEN_FDS", std::to_string(next - 3).c_str(), 1);
      }
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    for (int i = 0; i < 2000 && !isUnixSocketServed(socketPath()) && isRunning(); ++i) ::poll(nullptr, 0, 5);
  }
  ~HelperProcess() { end(SIGKILL); }
  HelperProcess(const HelperProcess&) = delete;
  HelperProcess& operator=(const HelperProcess&) = delete;

  [[nodiscard]] std::string socketPath() const { return directory.file("s"); }
  [[nodiscard]] std::string stateFile() const { return directory.file("state.json"); }
  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool isRunning() {
    if (pid_ > 0 && ::waitpid(pid_, &status_, WNOHANG) == pid_) pid_ = -1;
    return pid_ > 0;
  }
  /// What it wrote to standard error.
  [[nodiscard]] std::string log() const {
    std::ifstream file(directory.file("log"));
    return {std::istreambuf_iterator<char>(file), {}};
  }
  /// Sends the signal and waits; returns the exit status, or minus the signal that ended the process.
  int end(int signalNumber) {
    if (isRunning()) {
      ::kill(pid_, signalNumber);
      ::waitpid(pid_, &status_, 0);
      pid_ = -1;
    }
    return WIFEXITED(status_) ? WEXITSTATUS(status_) : -WTERMSIG(status_);
  }

  TemporaryDirectory directory;

 private:
  pid_t pid_ = -1;
  int status_ = 0;
};

}  // namespace vimbrel
