// SPDX-License-Identifier: Apache-2.0
#include "ProcessRun.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>

#include "BenchmarkTable.h"

extern char** environ;

namespace vimbrel {
namespace {

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

ProcessRun runProcess(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const auto& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  ProcessRun run;
  const int failed = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failed != 0) return run;
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  run.wallSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  run.cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
  run.peakKiB = usage.ru_maxrss;
  run.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

bool printRow(const std::string& what, const std::string& ours, const std::string& reference, double value,
              double target, const char* unit, std::optional<double> costRatio) {
  const bool met = target <= 0 || value <= target;
  printBenchmarkRow({what, ours, reference, costRatio, target > 0 ? "<= " + figure(target, unit) : "-",
                     target > 0 ? std::optional(met) : std::nullopt});
  return met;
}

}  // namespace vimbrel
