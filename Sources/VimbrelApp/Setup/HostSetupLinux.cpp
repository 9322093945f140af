// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "Platform/Linux/LinuxLoginItem.h"
#include "Say.h"
#include "Setup/HostSetup.h"
#include "Support/Directories.h"
#include "Support/Subprocess.h"

extern char** environ;

namespace vimbrel {
namespace {

constexpr const char* packagedUnit = "vimbrel.service";

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// What systemctl answers for the user's own service manager; absent when it cannot be run, or fails.
std::expected<std::string, std::string> systemctl(std::vector<std::string> arguments) {
  const auto path = variable("PATH");
  const auto program = findExecutable(path.empty() ? std::nullopt : std::optional(path), "systemctl");
  if (!program) return std::unexpected(say("systemctl is not installed"));
  std::string words = "systemctl --user";
  for (const auto& argument : arguments) words += " " + argument;
  arguments.insert(arguments.begin(), "--user");
  // Starting waits until the application says that it is ready.
  const auto done =
      runProgram(*program, arguments, {.timeout = std::chrono::seconds(30), .maximumOutputBytes = 65536});
  if (!done) return std::unexpected(say("%1 does not come to an end", {words}));
  if (done->exitStatus != 0) {
    return std::unexpected(say("%1 failed with status %2; see: journalctl --user -u vimbrel",
                               {words, std::to_string(done->exitStatus)}));
  }
  return done->output;
}

std::string propertyOf(const std::string& unit, const std::string& property) {
  const auto answer = systemctl({"show", unit, "--property=" + property, "--value"});
  return answer ? answer->substr(0, answer->find('\n')) : "";
}

std::expected<void, std::string> withoutOutput(const std::expected<std::string, std::string>& result) {
  if (!result) return std::unexpected(result.error());
  return {};
}

}  // namespace

LoginStart examineLoginStart() {
  auto item = LinuxLoginItem::ofUser();
  LoginStart found;
  found.canUseDesktop = !variable("XDG_CURRENT_DESKTOP").empty() || !variable("WAYLAND_DISPLAY").empty() ||
                        !variable("DISPLAY").empty();
  found.canUseService = systemctl({"show", "--property=Version"}).has_value();
  found.isPackaged = found.canUseService && propertyOf(packagedUnit, "LoadState") == "loaded";
  found.unit = found.isPackaged ? packagedUnit : LinuxLoginItem::unitName;
  bool isService = item.isServiceEnabled();
  for (const std::string unit : {packagedUnit, LinuxLoginItem::unitName}) {
    // Enabled for every user, or in another way than by a link in the user's configuration.
    if (!found.canUseService || propertyOf(unit, "UnitFileState") != "enabled") continue;
    isService = true;
    found.unit = unit;
  }
  const bool isEntry = item.isEntryEnabled();
  found.hasBoth = isService && isEntry;
  found.way = isService ? LoginStart::Way::service
              : isEntry ? LoginStart::Way::desktop
                        : LoginStart::Way::none;
  return found;
}

std::expected<void, std::string> startByService(const LoginStart& found, bool startsNow) {
  auto item = LinuxLoginItem::ofUser();
  if (found.isPackaged) {
    if (const auto enabled = systemctl({"enable", found.unit}); !enabled) return withoutOutput(enabled);
    if (auto removed = item.removeEntry(); !removed) return removed;
  } else {
    if (const auto installed = item.installService(); !installed) return std::unexpected(installed.error());
    if (const auto loaded = systemctl({"daemon-reload"}); !loaded) return withoutOutput(loaded);
  }
  if (!startsNow) return {};
  return withoutOutput(systemctl({"start", found.unit}));
}

std::expected<void, std::string> startByDesktop() { return LinuxLoginItem::ofUser().registerItem(); }

std::expected<void, std::string> removeDesktopEntry() { return LinuxLoginItem::ofUser().removeEntry(); }

std::expected<void, std::string> restartService(const std::string& unit) {
  return withoutOutput(systemctl({"restart", unit}));
}

bool isServiceActive(const std::string& unit) { return propertyOf(unit, "ActiveState") == "active"; }

std::expected<void, std::string> startInBackground(const std::string& program,
                                                   const std::vector<std::string>& arguments) {
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&files);
  posix_spawnattr_init(&attributes);
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    posix_spawn_file_actions_addopen(&files, descriptor, "/dev/null", O_RDWR, 0);
  }
  posix_spawn_file_actions_addclosefrom_np(&files, STDERR_FILENO + 1);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigfillset(&defaults);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  // A session of its own outlives the terminal.
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  std::vector<char*> words{const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  pid_t pid = 0;
  const int failure = ::posix_spawn(&pid, program.c_str(), &files, &attributes, words.data(), environ);
  posix_spawn_file_actions_destroy(&files);
  posix_spawnattr_destroy(&attributes);
  if (failure != 0) return std::unexpected(program + ": " + retell(std::strerror(failure)));
  return {};
}

std::string ownProgram() {
  char path[PATH_MAX];
  const auto length = ::readlink("/proc/self/exe", path, sizeof path);
  return length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "vimbrel";
}

bool isTrayRunning() {
  sd_bus* bus = nullptr;
  if (::sd_bus_open_user(&bus) < 0) return false;
  const std::unique_ptr<sd_bus, decltype(&::sd_bus_flush_close_unref)> owner(bus,
                                                                             &::sd_bus_flush_close_unref);
  sd_bus_message* reply = nullptr;
  int isOwned = 0;
  // The name that the tray takes, so that it runs once only.
  const int called =
      ::sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                           "NameHasOwner", nullptr, &reply, "s", "com.vimbrel.Tray");
  if (called >= 0) (void)::sd_bus_message_read(reply, "b", &isOwned);
  ::sd_bus_message_unref(reply);
  return isOwned != 0;
}

bool isTrayStartedAtLogin() {
  auto directories = variable("XDG_CONFIG_DIRS");
  if (directories.empty()) directories = "/etc/xdg";
  directories = directories::configuration() + ":" + directories;
  for (std::size_t at = 0; at <= directories.size();) {
    const auto end = std::min(directories.find(':', at), directories.size());
    const auto entry = directories.substr(at, end - at) + "/autostart/vimbrel-tray-autostart.desktop";
    if (pathExists(entry)) return true;
    at = end + 1;
  }
  return false;
}

}  // namespace vimbrel
