// SPDX-License-Identifier: Apache-2.0
#include "Support/VimbrelWritePolicy.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

#include "Support/Directories.h"
#include "Support/Log.h"

namespace vimbrel {
namespace {

const Logger& securityLog() {
  static const Logger logger("security");
  return logger;
}

std::optional<std::string> linkTarget(const std::string& path) {
  char target[PATH_MAX];
  const auto length = ::readlink(path.c_str(), target, sizeof target);
  if (length <= 0 || length == static_cast<ssize_t>(sizeof target)) return std::nullopt;
  return std::string(target, static_cast<std::size_t>(length));
}

/// The absolute path without dot segments and symbolic links; what does not exist stays as it is written.
/// Absent for a relative path and for links that go in circles.
std::optional<std::string> resolved(const std::string& path) {
  if (!path.starts_with('/')) return std::nullopt;
  constexpr int maximumLinks = 40;  // as many as the kernel follows
  int links = 0;
  std::string pending = std::filesystem::path(path).lexically_normal().string();
  std::string result;
  while (!pending.empty()) {
    const auto start = pending.find_first_not_of('/');
    if (start == std::string::npos) break;
    const auto end = std::min(pending.find('/', start), pending.size());
    const auto part = pending.substr(start, end - start);
    pending.erase(0, end);
    if (part == ".") continue;
    if (part == "..") {
      result.erase(std::min(result.rfind('/'), result.size()));
      continue;
    }
    const auto candidate = result + "/" + part;
    if (const auto target = linkTarget(candidate)) {
      if (++links > maximumLinks) return std::nullopt;
      if (target->starts_with('/')) result.clear();
      pending = *target + pending;
    } else {
      result = candidate;
    }
  }
  return result.empty() ? "/" : result;
}

std::string resolvedOrAsIs(const std::string& path) { return resolved(path).value_or(path); }

bool isDenied(const std::string& path) {
  static constexpr std::array<std::string_view, 14> inHome{
      "/.codex",        "/.claude",   "/.claude.json", "/.gemini", "/.config/opencode",
      "/.cursor",       "/.windsurf", "/.antigravity", "/.zshrc",  "/.bashrc",
      "/.bash_profile", "/.profile",  "/.gitconfig",   "/.ssh"};
  static constexpr std::array<std::string_view, 4> inSystem{"/etc", "/usr", "/bin", "/sbin"};
  const auto covers = [&](const std::string& entry) {
    return path == entry || path.starts_with(entry + "/");
  };
  const auto home = resolvedOrAsIs(directories::home());
  for (const auto entry : inHome) {
    if (covers(home + std::string(entry))) return true;
  }
  for (const auto entry : inSystem) {
    if (covers(std::string(entry))) return true;
  }
  return false;
}

std::string absoluteVariable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && value[0] == '/' ? value : std::string{};
}

/// The user's own temporary directory. /tmp belongs to everybody, so it counts only where the environment
/// names it; the run-time directory of the login session is the platform's private one.
std::string temporaryDirectory() {
  auto path = absoluteVariable("TMPDIR");
  if (path.empty()) path = absoluteVariable("XDG_RUNTIME_DIR");
  while (path.size() > 1 && path.ends_with('/')) path.pop_back();
  return path;
}

bool isOwn(const std::string& path) {
  // A directory that the system keeps behind a link (/var/run, a home on another disk) is compared as the
  // link's target too. What follows it is ours and must not be a link: somebody else could have put it there.
  const auto below = [&](const std::string& directory, std::string_view own) {
    if (directory.empty()) return false;
    const auto suffix = std::string(own);
    return path.starts_with(directory + suffix) || path.starts_with(resolvedOrAsIs(directory) + suffix);
  };
  return below(directories::applicationSupport(), "/Vimbrel") || below(directories::state(), "/Vimbrel") ||
         below("/tmp", "/vimbrel") || below("/var/run", "/vimbrel") || below(temporaryDirectory(), "") ||
         // The preferences and the login item share their directories with other programs: the name decides.
         (below(directories::configuration(), "/") && path.find("com.vimbrel") != std::string::npos);
}

}  // namespace

std::string VimbrelWriteSecurityError::text() const {
  return "Vimbrel write security violation: Cannot write to '" + path + "'. Reason: " + reason;
}

namespace VimbrelWritePolicy {

bool mayWrite(const std::string& path) {
  const auto target = resolved(path);
  if (target && isDenied(*target)) {
    securityLog().error("Blocked write attempt to prohibited path: %s", target->c_str());
    return false;
  }
  if (target && isOwn(*target)) return true;
  securityLog().error("Disallowed write to non-whitelisted path: %s", target.value_or(path).c_str());
  return false;
}

std::expected<void, VimbrelWriteSecurityError> assertCanWrite(const std::string& path) {
  if (mayWrite(path)) return {};
  return std::unexpected(VimbrelWriteSecurityError{
      path,
      "Path is outside Vimbrel-owned directories. Third-party configuration modification is prohibited."});
}

}  // namespace VimbrelWritePolicy
}  // namespace vimbrel
