// SPDX-License-Identifier: Apache-2.0
#include "Run/RunCommand.h"

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Run/BackgroundProcess.h"
#include "Run/HostPlatform.h"
#include "Run/InstanceLock.h"
#include "Support/Directories.h"
#include "Support/Log.h"

namespace vimbrel {
namespace {

int reportSecondInstance(const InstanceLockError& error) {
  if (error.holder) {
    std::fprintf(stderr,
                 "vimbrel: Vimbrel is already running (process %ld). See what it does with: vimbrel watch\n",
                 *error.holder);
  } else {
    std::fprintf(stderr, "vimbrel: cannot make sure that Vimbrel runs once only: %s\n", error.text.c_str());
  }
  return exitCode::failed;
}

}  // namespace

int runCommand(const RunOptions& options, const std::string& version) {
  // A process that is idle all day is better small than fast: one heap for its few threads, and freed memory
  // given back early.
  ::mallopt(M_ARENA_MAX, 1);
  ::mallopt(M_TRIM_THRESHOLD, 64 * 1024);
  ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  // Logs and records tell what somebody works on; nobody else needs to read them.
  ::umask(077);
  ::signal(SIGPIPE, SIG_IGN);  // A reader of standard output may leave; the machine must stay awake.

  const auto lock = InstanceLock::acquire(runDirectory() + "/vimbrel.lock");
  if (!lock) return reportSecondInstance(lock.error());
  if (!options.worldFile.empty() && ::access(options.worldFile.c_str(), R_OK) != 0) {
    std::perror(("vimbrel: " + options.worldFile).c_str());
    return exitCode::failed;
  }
  logging::useSystemLog(directories::state() + "/Vimbrel", "vimbrel",
                        options.logDetails ? LogLevel::debug : LogLevel::info);
  BackgroundProcess process(options, version);
  if (const auto started = process.start(controlSocketPath()); !started) {
    std::fprintf(stderr, "vimbrel: %s\n", started.error().c_str());
    return exitCode::failed;
  }
  ::malloc_trim(0);
  process.run();
  return exitCode::done;
}

int installServiceCommand() {
  const auto installed = installUserService();
  if (!installed) {
    std::fprintf(stderr, "vimbrel: the service could not be installed: %s\n", installed.error().c_str());
    return exitCode::failed;
  }
  std::printf(
      "Installed %s\nIt starts at the next login. To start it now:\n"
      "  systemctl --user daemon-reload && systemctl --user start com.vimbrel.app\n"
      "To remove it, while Vimbrel runs: vimbrel settings set launchAtLogin off\n",
      installed->c_str());
  return exitCode::done;
}

}  // namespace vimbrel
