// SPDX-License-Identifier: Apache-2.0
#include "EndToEnd/ProcessHarness.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <utmp.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <thread>

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (const auto& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

void drain(const Fd& descriptor, std::string& into) {
  char buffer[4096];
  while (descriptor) {
    pollfd poll{descriptor.get(), POLLIN, 0};
    if (::poll(&poll, 1, 0) != 1) return;
    const auto count = ::read(descriptor.get(), buffer, sizeof buffer);
    if (count <= 0) return;
    into.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return false;
}

RunningProcess::RunningProcess(const std::vector<std::string>& command, const Environment& environment,
                               Terminal terminal, int columns) {
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  const auto arguments = pointersTo(command);
  const auto settings = pointersTo(variables);
  int master = -1;
  int slave = -1;
  int out[2];
  int error[2];
  if (terminal == Terminal::pseudo) {
    winsize size{24, static_cast<unsigned short>(columns), 0, 0};
    EXPECT_EQ(::openpty(&master, &slave, nullptr, nullptr, &size), 0);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
  } else {
    EXPECT_EQ(::pipe2(out, O_CLOEXEC), 0);
    EXPECT_EQ(::pipe2(error, O_CLOEXEC), 0);
  }
  pid_ = ::fork();
  if (pid_ == 0) {
    if (terminal == Terminal::pseudo) {
      ::login_tty(slave);
    } else {
      ::setpgid(0, 0);
      ::dup2(::open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
      ::dup2(out[1], STDOUT_FILENO);
      ::dup2(error[1], STDERR_FILENO);
    }
    ::execve(arguments[0], arguments.data(), settings.data());
    ::_exit(127);
  }
  if (terminal == Terminal::pseudo) {
    output_.reset(master);
    terminalSlave_.reset(slave);  // Kept, so that the terminal outlives the process and can be looked at.
  } else {
    ::close(out[1]);
    ::close(error[1]);
    output_.reset(out[0]);
    errors_.reset(error[0]);
  }
}

RunningProcess::~RunningProcess() {
  if (status_) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

void RunningProcess::signal(int number) const { ::kill(pid_, number); }

void RunningProcess::type(const std::string& keys) const {
  EXPECT_EQ(::write(output_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
}

void RunningProcess::resize(int columns, int rows) const {
  const winsize size{static_cast<unsigned short>(rows), static_cast<unsigned short>(columns), 0, 0};
  ::ioctl(output_.get(), TIOCSWINSZ, &size);
}

std::string RunningProcess::terminalMode() const {
  termios mode{};
  EXPECT_EQ(::tcgetattr(terminalSlave_.get(), &mode), 0);
  return std::to_string(mode.c_iflag) + " " + std::to_string(mode.c_oflag) + " " +
         std::to_string(mode.c_lflag);
}

void RunningProcess::readAvailable() {
  drain(output_, outputText_);
  drain(errors_, errorText_);
}

const std::string& RunningProcess::output() {
  readAvailable();
  return outputText_;
}

const std::string& RunningProcess::errors() {
  readAvailable();
  return errorText_;
}

std::optional<int> RunningProcess::wait() {
  const auto ended = [this] {
    readAvailable();  // A full pipe would keep it from ending.
    if (status_) return true;
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) return false;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  };
  (void)eventually(ended);
  readAvailable();
  return status_;
}

bool RunningProcess::isStopped() const {
  std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
  std::string text;
  std::getline(stat, text);
  const auto name = text.rfind(')');
  return name != std::string::npos && text.size() > name + 2 && text[name + 2] == 'T';
}

Sandbox::Sandbox()
    : environment{{"HOME", home()}, {"PATH", "/usr/bin:/bin"}, {"TERM", "xterm"}, {"TZ", "UTC"}} {
  write("world.json", "{}");
}

void Sandbox::write(const std::string& name, const std::string& contents) const {
  // Replaced in one step, as editors do.
  std::ofstream(file(name + ".new")) << contents;
  std::filesystem::rename(file(name + ".new"), file(name));
}

FinishedProcess Sandbox::runToEnd(const std::vector<std::string>& command) const {
  RunningProcess process(command, environment);
  FinishedProcess finished;
  const auto status = process.wait();
  EXPECT_TRUE(status) << command[1] << " does not end";
  finished.status = status.value_or(-1);
  finished.output = process.output();
  finished.errors = process.errors();
  return finished;
}

FinishedProcess Sandbox::vimbrel(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{vimbrelProgram()};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runToEnd(command);
}

FinishedProcess Sandbox::relay(const std::vector<std::string>& arguments) const {
  std::vector<std::string> command{VIMBREL_RELAY_PROGRAM};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return runToEnd(command);
}

std::unique_ptr<RunningProcess> Sandbox::startSimulated() const {
  auto process = std::make_unique<RunningProcess>(
      std::vector<std::string>{vimbrelProgram(), "run", "--simulate", file("world.json")}, environment);
  EXPECT_TRUE(eventually([&] { return vimbrel({"status"}).status == 0; })) << process->errors();
  return process;
}

std::string vimbrelProgram() { return VIMBREL_PROGRAM; }

}  // namespace vimbrel
