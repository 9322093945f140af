// SPDX-License-Identifier: Apache-2.0
#include "Run/RunCommand.h"

#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Run/BackgroundProcess.h"
#include "Run/HostPlatform.h"
#include "Run/InstanceLock.h"
#include "Say.h"
#include "Support/Directories.h"
#include "Support/Log.h"

namespace vimbrel {
namespace {

int reportSecondInstance(const InstanceLockError& error) {
  if (error.holder) {
    return reportProblem(say("Vimbrel is already running (process %1). See what it does with: vimbrel watch",
                             {std::to_string(*error.holder)}));
  }
  return reportProblem(say("cannot make sure that Vimbrel runs once only: %1", {retell(error.text)}));
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
    return reportProblem(started.error());
  }
  ::malloc_trim(0);
  process.run();
  return exitCode::done;
}

int installServiceCommand() {
  const auto installed = installUserService();
  if (!installed) {
    return reportProblem(say("the service could not be installed: %1", {retell(installed.error())}));
  }
  printLines({say("Installed %1", {*installed}), say("It starts at the next login. To start it now:"),
              "  systemctl --user daemon-reload && systemctl --user start com.vimbrel.app",
              say("To remove it, while Vimbrel runs: vimbrel settings set launchAtLogin off")});
  return exitCode::done;
}

}  // namespace vimbrel
