// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>

#include "AgentMonitoring/Adapters/AgentAdapter.h"
#include "Support/Directories.h"

namespace vimbrel {

const std::vector<const char*>& AgentEnvironment::variableNames() {
  static const std::vector<const char*> names{"PATH",          "XDG_CONFIG_HOME",   "XDG_DATA_HOME",
                                              "XDG_DATA_DIRS", "CLAUDE_CONFIG_DIR", "CODEX_HOME"};
  return names;
}

AgentEnvironment AgentEnvironment::fromVariables(const Variables& variables) {
  /// A directory that is set, without a slash at its end.
  const auto directory = [&](const char* name, std::string otherwise) {
    auto value = variables(name).value_or("");
    if (!value.starts_with('/')) return otherwise;
    while (value.size() > 1 && value.ends_with('/')) value.pop_back();
    return value;
  };
  AgentEnvironment environment;
  environment.home = directories::home();
  environment.path = variables("PATH");
  environment.configurationHome = directory("XDG_CONFIG_HOME", environment.home + "/.config");
  environment.dataHome = directory("XDG_DATA_HOME", environment.home + "/.local/share");
  environment.codexHome = directory("CODEX_HOME", environment.home + "/.codex");
  // A list, of which new sessions use the first.
  const auto claude = variables("CLAUDE_CONFIG_DIR").value_or("");
  const auto first = claude.substr(0, claude.find(','));
  environment.claudeConfiguration = first.starts_with('/') ? first : environment.home + "/.claude";

  environment.applicationDirectories.push_back(environment.dataHome + "/applications");
  auto shared = variables("XDG_DATA_DIRS").value_or("");
  if (shared.empty()) shared = "/usr/local/share:/usr/share";
  for (std::string_view rest = shared; !rest.empty();) {
    const auto colon = rest.find(':');
    if (colon != 0)
      environment.applicationDirectories.push_back(std::string(rest.substr(0, colon)) + "/applications");
    rest.remove_prefix(colon == std::string_view::npos ? rest.size() : colon + 1);
  }
  for (const auto* exported :
       {"/var/lib/flatpak/exports/share/applications", "/var/lib/snapd/desktop/applications"}) {
    environment.applicationDirectories.emplace_back(exported);
  }
  return environment;
}

AgentEnvironment AgentEnvironment::fromProcess() {
  return fromVariables([](const char* name) -> std::optional<std::string> {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return value;
  });
}

std::string AgentEnvironment::shown(const std::string& path) const {
  if (home.size() > 1 && path.starts_with(home + "/")) return "~" + path.substr(home.size());
  return path;
}

}  // namespace vimbrel
