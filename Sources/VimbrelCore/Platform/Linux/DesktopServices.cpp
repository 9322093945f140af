// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/DesktopServices.h"

#include <sys/utsname.h>

#include <cstdlib>

#include "Platform/Linux/BusNotificationCenter.h"
#include "Platform/Linux/CanberraSoundPlayer.h"
#include "Platform/Linux/LinuxLoginItem.h"
#include "Platform/Linux/PortalKeyShortcut.h"
#include "Platform/Linux/X11KeyShortcut.h"
#include "Support/AtomicFile.h"
#include "Support/Sentence.h"
#include "Support/Subprocess.h"

namespace vimbrel {
namespace {

using Verdict = DoctorFinding::Verdict;

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// An X11 display that a Wayland desktop offers beside itself sees the keys of its own windows only.
std::shared_ptr<KeyShortcut> chooseShortcut(const std::shared_ptr<TaskQueue>& mainQueue,
                                            const std::shared_ptr<BusConnection>& sessionBus) {
  if (!variable("WAYLAND_DISPLAY").empty()) return std::make_shared<PortalKeyShortcut>(sessionBus);
  if (const auto display = variable("DISPLAY"); !display.empty()) {
    return std::make_shared<X11KeyShortcut>(display, mainQueue);
  }
  return nullptr;
}

/// One value of os-release(5), without its quotation marks.
std::string osReleaseValue(const std::string& text, const std::string& key) {
  const auto at = ("\n" + text).find("\n" + key + "=");
  if (at == std::string::npos) return "";
  const auto start = at + key.size() + 1;
  auto value = text.substr(start, text.find('\n', start) - start);
  std::erase(value, '"');
  return value;
}

}  // namespace

void addDesktopServices(PlatformServices& services, const std::shared_ptr<TaskQueue>& mainQueue,
                        const std::shared_ptr<BusConnection>& sessionBus) {
  services.notificationCenter = BusNotificationCenter::create(sessionBus);
  services.soundPlayer = std::make_shared<CanberraSoundPlayer>();
  services.loginItem = std::make_shared<LinuxLoginItem>(LinuxLoginItem::ofUser());
  services.keyShortcut = chooseShortcut(mainQueue, sessionBus);
}

std::vector<DoctorFinding> examineDesktop(const PlatformServices& services) {
  std::vector<DoctorFinding> findings;
  if (services.notificationCenter && services.notificationCenter->isAvailable()) {
    findings.push_back(
        {sentence("notifications"), Verdict::works, sentence("the desktop shows notifications"), ""});
  } else {
    findings.push_back(
        {sentence("notifications"), Verdict::missing,
         sentence("nobody on the session bus shows notifications (org.freedesktop.Notifications)"),
         sentence("in a desktop without them, start a notification daemon such as dunst")});
  }
  if (services.loginItem) {
    const auto status = services.loginItem->status();
    if (status == LoginItemStatus::requiresApproval) {
      findings.push_back(
          {sentence("start at login"), Verdict::warning,
           sentence("the autostart entry is there, but switched off in the desktop's settings"),
           sentence("switch it on there, or with: vimbrel settings set launchAtLogin off, then on")});
    } else if (status == LoginItemStatus::notFound) {
      findings.push_back({sentence("start at login"), Verdict::warning,
                          sentence("the autostart entry names a program that is no longer there"),
                          sentence("vimbrel settings set launchAtLogin off, then on")});
    } else {
      const bool isOn = status == LoginItemStatus::enabled;
      findings.push_back({sentence("start at login"), Verdict::works,
                          isOn ? sentence("it is on") : sentence("it is off"), ""});
    }
  }
  return findings;
}

std::string describeLinux() {
  utsname kernel{};
  ::uname(&kernel);
  const auto release = readFile("/etc/os-release", 65536).value_or("");
  auto name = osReleaseValue(release, "PRETTY_NAME");
  if (!name.empty()) name += ", ";
  return name + kernel.sysname + " " + kernel.release + " " + kernel.machine;
}

std::string listLinuxAssertions() {
  const auto listed =
      runProgram("/usr/bin/systemd-inhibit", {"--list", "--no-pager"}, {.maximumOutputBytes = 262144});
  return listed && listed->exitStatus == 0 ? listed->output : "";
}

}  // namespace vimbrel
