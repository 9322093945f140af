// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/AntigravityActivity.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>
#include <vector>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;

// A turn of the agent writes its transcript every few seconds; between turns it waits for the user.
constexpr Seconds activeFor{30};
constexpr Seconds waitingFor{180};
constexpr std::size_t examinedFolders = 5;

constexpr AntigravityActivity notRunning{false, false, false, sentence("Not running")};
constexpr AntigravityActivity idle{true, false, false, sentence("Antigravity IDE (Idle)")};
constexpr AntigravityActivity waiting{true, false, true, sentence("Antigravity IDE (Waiting)")};
constexpr AntigravityActivity active{true, true, false, sentence("Antigravity Agent (Active)")};

std::optional<Instant> modificationTime(const std::string& path) {
  // The entry itself, not what a symbolic link points to.
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return std::nullopt;
  return instantFromUnixSeconds(static_cast<double>(status.st_mtim.tv_sec) +
                                static_cast<double>(status.st_mtim.tv_nsec) / 1e9);
}

struct Folder {
  std::string path;
  Instant modified;
};

/// The folders that were modified last, newest first; absent when the directory cannot be listed.
std::optional<std::vector<Folder>> newestFolders(const std::string& directory) {
  constexpr Instant longAgo{Seconds{-std::numeric_limits<double>::infinity()}};
  std::error_code fault;
  std::vector<Folder> folders;
  for (fs::directory_iterator entry(directory, fault), end; !fault && entry != end; entry.increment(fault)) {
    if (entry->path().filename().native().starts_with('.')) continue;
    auto path = entry->path().native();
    const auto modified = modificationTime(path).value_or(longAgo);
    folders.push_back({std::move(path), modified});
  }
  if (fault) return std::nullopt;
  const auto kept = std::min(folders.size(), examinedFolders);
  std::ranges::partial_sort(folders, folders.begin() + static_cast<std::ptrdiff_t>(kept),
                            std::ranges::greater{}, &Folder::modified);
  folders.resize(kept);
  return folders;
}

}  // namespace

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; };
  return !std::ranges::search(text, part, {}, lower, lower).empty() || part.empty();
}

bool isAntigravity(const RunningApplication& application) {
  return containsIgnoringCase(application.localizedName.value_or(""), "antigravity") ||
         containsIgnoringCase(application.bundleIdentifier, "antigravity");
}

AntigravityActivity checkAntigravityWorkingState(std::span<const RunningApplication> running,
                                                 const std::string& homeDirectory, Instant now) {
  if (std::ranges::none_of(running, isAntigravity)) return notRunning;
  const auto folders = newestFolders(homeDirectory + "/.gemini/antigravity/brain");
  if (!folders) return idle;
  for (const auto& folder : *folders) {
    const auto modified = modificationTime(folder.path + "/.system_generated/logs/transcript.jsonl");
    if (!modified) continue;
    const auto age = now - *modified;
    if (age < activeFor) return active;
    if (age < waitingFor) return waiting;
  }
  return idle;
}

}  // namespace vimbrel
