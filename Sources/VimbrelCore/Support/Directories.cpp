// SPDX-License-Identifier: Apache-2.0
#include "Support/Directories.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "Support/ApplicationSupportPath.h"

namespace vimbrel::directories {
namespace {

std::string absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? value : std::string{};
}

std::string variableOrBelowHome(const char* name, const char* below) {
  auto path = absoluteVariable(name);
  return path.empty() ? home() + below : path;
}

}  // namespace

std::string home() {
  auto path = absoluteVariable("HOME");
  if (!path.empty()) return path;
  struct passwd entry{};
  struct passwd* found = nullptr;
  char buffer[16384];
  if (getpwuid_r(geteuid(), &entry, buffer, sizeof buffer, &found) == 0 && found != nullptr &&
      found->pw_dir != nullptr && found->pw_dir[0] == '/') {
    return found->pw_dir;
  }
  return "/";
}

std::string applicationSupport() {
  std::string path;
  appendApplicationSupport(path, std::getenv("XDG_DATA_HOME"), nullptr,
                           [](std::string& sink) { sink += home(); });
  return path;
}
std::string configuration() { return variableOrBelowHome("XDG_CONFIG_HOME", "/.config"); }
std::string state() { return variableOrBelowHome("XDG_STATE_HOME", "/.local/state"); }

}  // namespace vimbrel::directories
