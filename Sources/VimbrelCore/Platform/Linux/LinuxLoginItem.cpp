// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxLoginItem.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <climits>
#include <cstring>
#include <initializer_list>

#include "PackagedUnit.h"
#include "Support/Directories.h"
#include "Support/OwnFile.h"

namespace vimbrel {
namespace {

std::unexpected<std::string> failure(const std::string& path, int code) {
  return std::unexpected(path + ": " + std::strerror(code));
}

std::expected<void, std::string> removeOwnFile(const std::string& path) {
  if (const auto allowed = VimbrelWritePolicy::assertCanWrite(path); !allowed) {
    return std::unexpected(allowed.error().text());
  }
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) return failure(path, errno);
  return {};
}

/// An argument of an Exec key, quoted as the Desktop Entry Specification asks.
std::string quotedForEntry(const std::string& argument) {
  std::string quoted = "\"";
  for (const char c : argument) {
    // The key is a string too, in which each backslash is written as two; "%" begins a field code.
    if (c == '"' || c == '`' || c == '$') quoted += "\\\\";
    if (c == '\\') quoted += "\\\\\\";
    if (c == '%') quoted += '%';
    quoted += c;
  }
  return quoted + "\"";
}

/// The same for systemd.service(5).
std::string quotedForUnit(const std::string& argument) {
  std::string quoted = "\"";
  for (const char c : argument) {
    if (c == '"' || c == '\\') quoted += '\\';
    if (c == '%' || c == '$') quoted += c;
    quoted += c;
  }
  return quoted + "\"";
}

std::string entryText(const std::string& program) {
  return "[Desktop Entry]\nType=Application\nName=Vimbrel\n"
         "Comment=Keeps this computer awake while coding agents work\n"
         "Exec=" +
         quotedForEntry(program) + " run --lines\nTryExec=" + program +
         "\nTerminal=false\nNoDisplay=true\nX-GNOME-Autostart-enabled=true\n";
}

std::string unitText(const std::string& program) {
  constexpr std::string_view packagedProgram = "/usr/bin/vimbrel";
  std::string text = packagedUnitText;
  const auto at = text.find("ExecStart=" + std::string(packagedProgram));
  assert(at != std::string::npos);
  return text.replace(text.find('/', at), packagedProgram.size(), quotedForUnit(program));
}

bool isTrue(const std::string& line, std::string_view key, std::string_view value) {
  return line.starts_with(key) && std::string_view(line).substr(key.size()) == value;
}

}  // namespace

LinuxLoginItem LinuxLoginItem::ofUser() {
  char path[PATH_MAX];
  const auto length = ::readlink("/proc/self/exe", path, sizeof path);
  return {directories::configuration(),
          length > 0 ? std::string(path, static_cast<std::size_t>(length)) : "vimbrel"};
}

std::string LinuxLoginItem::entryPath() const {
  return configuration_ + "/autostart/com.vimbrel.app.desktop";
}
std::string LinuxLoginItem::unitPath() const { return configuration_ + "/systemd/user/" + unitName; }
std::string LinuxLoginItem::wantPath() const {
  return configuration_ + "/systemd/user/default.target.wants/" + unitName;
}

bool LinuxLoginItem::isServiceEnabled() const {
  // The second is the name of the unit that a package brings; the user enables it with systemctl.
  for (const std::string name : {unitName, "vimbrel.service"}) {
    const auto want = configuration_ + "/systemd/user/default.target.wants/" + name;
    if (::access(want.c_str(), F_OK) == 0) return true;
  }
  return false;
}

LoginItemStatus LinuxLoginItem::status() {
  return isServiceEnabled() ? LoginItemStatus::enabled : entryStatus();
}

bool LinuxLoginItem::isEntryEnabled() const { return entryStatus() == LoginItemStatus::enabled; }

std::expected<void, std::string> LinuxLoginItem::removeEntry() { return removeOwnFile(entryPath()); }

LoginItemStatus LinuxLoginItem::entryStatus() const {
  const auto text = readFile(entryPath());
  if (!text) return LoginItemStatus::notRegistered;
  std::string program;
  for (std::size_t at = 0; at < text->size();) {
    const auto end = std::min(text->find('\n', at), text->size());
    const auto line = text->substr(at, end - at);
    at = end + 1;
    if (isTrue(line, "Hidden=", "true") || isTrue(line, "X-GNOME-Autostart-enabled=", "false")) {
      return LoginItemStatus::requiresApproval;
    }
    if (line.starts_with("TryExec=")) program = line.substr(8);
  }
  const bool isThere = program.empty() || ::access(program.c_str(), X_OK) == 0;
  return isThere ? LoginItemStatus::enabled : LoginItemStatus::notFound;
}

std::expected<void, std::string> LinuxLoginItem::registerItem() {
  if (isServiceEnabled()) return {};
  if (const auto written = replaceOwnFile(entryPath(), entryText(program_), 0644); !written) {
    return std::unexpected(written.error().text());
  }
  return {};
}

std::expected<void, std::string> LinuxLoginItem::unregisterItem() {
  for (const auto& path : {entryPath(), wantPath(), unitPath()}) {
    if (auto removed = removeOwnFile(path); !removed) return removed;
  }
  if (isServiceEnabled()) {
    return std::unexpected(
        "the unit vimbrel.service is enabled; disable it with: systemctl --user disable vimbrel");
  }
  return {};
}

std::expected<std::string, std::string> LinuxLoginItem::installService() {
  if (const auto written = replaceOwnFile(unitPath(), unitText(program_), 0644); !written) {
    return std::unexpected(written.error().text());
  }
  const auto directory = wantPath().substr(0, wantPath().rfind('/'));
  if (const auto made = createDirectories(directory); !made) return std::unexpected(made.error().text());
  if (auto removed = removeOwnFile(wantPath()); !removed) return std::unexpected(removed.error());
  if (::symlink(unitPath().c_str(), wantPath().c_str()) != 0) return failure(wantPath(), errno);
  // Last, so that a failure before leaves the entry that was there.
  if (auto removed = removeOwnFile(entryPath()); !removed) return std::unexpected(removed.error());
  return unitPath();
}

}  // namespace vimbrel
