// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ApplicationScope.h"

#include <charconv>

namespace vimbrel {
namespace {

/// systemd writes what its unit names cannot hold as "\x2d".
std::string unescapedUnit(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text.substr(i).starts_with("\\x") && i + 4 <= text.size()) {
      const char* digits = text.data() + i + 2;
      if (std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2 && value != 0) {
        result.push_back(static_cast<char>(value));
        i += 3;
        continue;
      }
    }
    result.push_back(text[i]);
  }
  return result;
}

bool removeSuffix(std::string_view& text, std::string_view suffix) {
  if (!text.ends_with(suffix)) return false;
  text.remove_suffix(suffix.size());
  return true;
}

std::optional<ApplicationScope> parseAppUnit(std::string_view unit) {
  ApplicationScope scope;
  scope.unit = unit;
  auto name = unit.substr(std::string_view("app-").size());
  if (removeSuffix(name, ".scope")) {
    const auto dash = name.rfind('-');
    if (dash == std::string_view::npos) return std::nullopt;
    const auto number = name.substr(dash + 1);
    std::int32_t pid = 0;
    const auto parsed = std::from_chars(number.data(), number.data() + number.size(), pid);
    if (parsed.ec == std::errc{} && parsed.ptr == number.data() + number.size()) scope.mainPid = pid;
    name = name.substr(0, dash);
  } else if (removeSuffix(name, ".service")) {
    name = name.substr(0, name.find('@'));
  } else {
    return std::nullopt;
  }
  // Dashes within the id are escaped, so what stands before the last one is the launcher.
  const auto launcherEnd = name.rfind('-');
  if (launcherEnd != std::string_view::npos) name.remove_prefix(launcherEnd + 1);
  scope.applicationId = unescapedUnit(name);
  if (scope.applicationId.empty()) return std::nullopt;
  return scope;
}

std::optional<ApplicationScope> parseSnapUnit(std::string_view unit) {
  auto name = unit;
  if (!removeSuffix(name, ".scope") && !removeSuffix(name, ".service")) return std::nullopt;
  // In "snap.scope" the dot belongs to the suffix.
  constexpr std::string_view prefix = "snap.";
  if (!name.starts_with(prefix)) return std::nullopt;
  name.remove_prefix(prefix.size());
  const auto dot = name.find('.');
  if (dot == 0 || dot == std::string_view::npos) return std::nullopt;
  auto application = name.substr(dot + 1);
  // Followed by a random UUID after a dot or, in later versions, a dash; the UUID is 36 characters long.
  constexpr std::size_t tail = 37;
  if (const auto next = application.find('.'); next != std::string_view::npos) {
    application = application.substr(0, next);
  } else if (application.size() > tail) {
    application.remove_suffix(tail);
  }
  if (application.empty()) return std::nullopt;
  return ApplicationScope{std::string(name.substr(0, dot)) + '_' + std::string(application),
                          std::string(unit), 0};
}

}  // namespace

std::optional<ApplicationScope> parseApplicationScope(std::string_view cgroups) {
  while (!cgroups.empty()) {
    const auto end = cgroups.find('\n');
    auto line = cgroups.substr(0, end);
    cgroups = end == std::string_view::npos ? std::string_view{} : cgroups.substr(end + 1);
    // "number:controllers:path": the unified hierarchy, or systemd's own in older set-ups.
    const bool isSystemd = line.starts_with("0::") || line.contains(":name=systemd:");
    if (!isSystemd) continue;
    while (!line.empty()) {
      const auto slash = line.rfind('/');
      const auto unit = slash == std::string_view::npos ? std::string_view{} : line.substr(slash + 1);
      if (unit.starts_with("app-")) {
        if (auto scope = parseAppUnit(unit)) return scope;
      } else if (unit.starts_with("snap.")) {
        if (auto scope = parseSnapUnit(unit)) return scope;
      }
      line = slash == std::string_view::npos ? std::string_view{} : line.substr(0, slash);
    }
  }
  return std::nullopt;
}

}  // namespace vimbrel
