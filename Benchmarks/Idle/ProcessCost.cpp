// SPDX-License-Identifier: Apache-2.0
#include "ProcessCost.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

namespace vimbrel {
namespace {

/// The number after `label` in a file of lines such as "Pss:   1234 kB".
std::uint64_t labelled(const std::string& path, const std::string& label) {
  std::ifstream file(path);
  std::string word;
  while (file >> word) {
    std::uint64_t number = 0;
    if (word == label && file >> number) return number;
  }
  return 0;
}

}  // namespace

ProcessCost costOf(pid_t pid) {
  ProcessCost cost;
  const auto directory = "/proc/" + std::to_string(pid);
  for (const auto& task : std::filesystem::directory_iterator(directory + "/task")) {
    std::uint64_t nanoseconds = 0;
    std::ifstream(task.path() / "schedstat") >> nanoseconds;
    cost.cpuMilliseconds += static_cast<double>(nanoseconds) / 1e6;
    cost.wakeups += labelled(task.path() / "status", "voluntary_ctxt_switches:");
  }
  cost.proportionalKiB = labelled(directory + "/smaps_rollup", "Pss:");
  return cost;
}

std::size_t processCount() {
  const auto entries = std::filesystem::directory_iterator("/proc");
  return static_cast<std::size_t>(std::count_if(begin(entries), end(entries), [](const auto& entry) {
    return entry.path().filename().string().find_first_not_of("0123456789") == std::string::npos;
  }));
}

Child::Child(const std::vector<std::string>& command, const std::map<std::string, std::string>& environment) {
  std::vector<std::string> variables;
  for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
  std::vector<char*> arguments;
  for (const auto& each : command) arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  std::vector<char*> settings;
  for (const auto& each : variables) settings.push_back(const_cast<char*>(each.c_str()));
  settings.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int nowhere = ::open("/dev/null", O_RDWR);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(nowhere, standard);
  if (command.empty()) {
    while (true) ::pause();
  }
  ::execve(arguments[0], arguments.data(), settings.data());
  ::_exit(127);
}

Child::~Child() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

}  // namespace vimbrel
