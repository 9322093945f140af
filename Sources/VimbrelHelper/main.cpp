// SPDX-License-Identifier: Apache-2.0
// The privileged side of the closed-lid hold. It knows one setting, whether this machine may sleep, and holds
// it for as long as somebody who may ask renews a lease.
#include <sys/stat.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

#include "HelperOptions.h"
#include "HelperServer.h"
#include "HelperService.h"
#include "ListeningSocket.h"
#include "MemorySleepSetting.h"
#include "Platform/Linux/Helper/LogindSleepSetting.h"
#include "Platform/Linux/Helper/SystemPeerAuthority.h"
#include "Privileges.h"
#include "Support/AtomicFile.h"
#include "Support/EventLoop.h"
#include "Support/Log.h"
#include "Version.h"

namespace {

using namespace vimbrel;

constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

/// To standard error, where the service manager reads the level off the front of the line. A client that
/// renews once a second would fill the log with one line, so a line that repeats the one before is left out.
void logToStandardError() {
  const bool managed = std::getenv("JOURNAL_STREAM") != nullptr;
  logging::setThreshold(LogLevel::info);
  logging::setSink([managed, last = std::string{}](LogLevel level, std::string_view,
                                                   std::string_view category, std::string_view text) mutable {
    if (text == last) return;
    last = text;
    const char* prefix = !managed ? "" : level == LogLevel::error ? "<3>" : "<6>";
    std::fprintf(stderr, "%s%.*s: %.*s\n", prefix, static_cast<int>(category.size()), category.data(),
                 static_cast<int>(text.size()), text.data());
  });
}

int fail(const std::string& why, int status) {
  std::fprintf(stderr, "vimbrel-helper: %s\n", why.c_str());
  return status;
}

int serve(const HelperOptions& options) {
  const Logger logger("helper", "com.vimbrel.helper");
  ::umask(077);
  const auto slash = options.stateFile.rfind('/');
  if (slash != std::string::npos && slash != 0) {
    // A failure shows, and is logged, when the state file is examined.
    (void)createDirectories(options.stateFile.substr(0, slash));
  }
  auto listening = openListeningSocket(options);
  if (!listening) return fail(listening.error(), exitFailed);
  if (!dropPrivileges()) return fail("cannot drop privileges", exitFailed);

  const SystemClock clock;
  EventLoop loop;
  auto authority = options.user ? std::shared_ptr<PeerAuthority>(std::make_shared<OwnerAuthority>())
                                : std::make_shared<SystemPeerAuthority>(
                                      loop.mainQueue(), "com.vimbrel.helper.hold", listening->group);
  HelperServiceParts parts{nullptr, {}, options.stateFile, loop.mainQueue(), [&loop] { loop.stop(); }};
  if (options.simulate) {
    parts.power = std::make_shared<MemorySleepSetting>();
  } else {
    auto setting = std::make_shared<LogindSleepSetting>();
    parts.whyPowerFailed = [setting] { return setting->lastFailure(); };
    parts.power = std::move(setting);
  }
  HelperService service(std::move(parts), clock);
  service.start();
  {
    const HelperServer server(std::move(listening->socket), loop.mainQueue(), std::move(authority),
                              [&](const HelperRequest& request, const PeerCredentials& peer) {
                                return service.answer(request, peer.uid);
                              });
    const auto terminated = loop.onSignal(SIGTERM, [&loop] { loop.stop(); });
    const auto interrupted = loop.onSignal(SIGINT, [&loop] { loop.stop(); });
    logger.info("Serving %s", listening->path.c_str());
    sd_notify(0, "READY=1");
    loop.run();
  }
  sd_notify(0, "STOPPING=1");
  service.stop();
  if (listening->isOurs) ::unlink(listening->path.c_str());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = parseHelperOptions({argv + 1, argv + argc});
  if (!options) return fail(options.error() + "\nTry vimbrel-helper --help.", exitUsage);
  if (options->help) return std::fputs(helperUsage, stdout) < 0 ? exitFailed : 0;
  if (options->version) return std::puts(("vimbrel-helper " + versionText()).c_str()) < 0 ? exitFailed : 0;
  std::signal(SIGPIPE, SIG_IGN);
  logToStandardError();
  try {
    return serve(*options);
  } catch (const std::exception& problem) {
    return fail(std::string("cannot go on: ") + problem.what(), exitFailed);  // Not even a loop can be had.
  }
}
