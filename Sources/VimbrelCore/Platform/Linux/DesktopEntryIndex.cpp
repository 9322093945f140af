// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/DesktopEntryIndex.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "Support/AtomicFile.h"
#include "Support/Directories.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;
using std::string_view_literals::operator""sv;

constexpr std::size_t maximumEntries = 8192;
constexpr std::size_t maximumVisited = 65536;
constexpr int maximumDepth = 4;

// They run whatever stands in their arguments, so that a process of theirs says nothing about the entry.
constexpr std::array runners{"bash"sv,         "dash"sv,   "electron"sv,    "env"sv,     "flatpak"sv,
                             "gapplication"sv, "gjs"sv,    "gjs-console"sv, "java"sv,    "node"sv,
                             "perl"sv,         "pkexec"sv, "python"sv,      "python3"sv, "ruby"sv,
                             "sh"sv,           "snap"sv,   "sudo"sv,        "wine"sv,    "xdg-open"sv};

// Too many programs share them to say that two of them belong together.
constexpr std::array sharedDirectories{
    "/"sv,          "/bin"sv,           "/opt"sv,       "/usr"sv,      "/usr/bin"sv,        "/usr/lib"sv,
    "/usr/local"sv, "/usr/local/bin"sv, "/usr/share"sv, "/usr/sbin"sv, "/usr/local/share"sv};

bool contains(const auto& values, const auto& value) {
  return std::ranges::find(values, value) != std::ranges::end(values);
}

std::vector<std::string> split(std::string_view text) {
  std::vector<std::string> parts;
  while (!text.empty()) {
    const auto end = text.find(':');
    if (text.starts_with('/')) parts.emplace_back(text.substr(0, end));
    text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
  }
  return parts;
}

std::string environmentOr(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : otherwise;
}

std::string fileName(std::string_view path) { return std::string(path.substr(path.rfind('/') + 1)); }
std::string directoryOf(std::string_view path) { return std::string(path.substr(0, path.rfind('/'))); }

std::string lowered(std::string text) {
  std::ranges::transform(text, text.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  });
  return text;
}

/// A launcher script and the program it starts bear the same name, or the script's has a prefix of the maker.
bool areRelated(const DesktopEntry& entry, const std::string& script, const std::string& program) {
  const auto one = lowered(script);
  const auto other = lowered(program);
  return one == other || one.ends_with("-" + other) || lowered(entry.startupWindowClass) == other;
}

}  // namespace

bool isProgramRunner(std::string_view name) {
  // "python3.11" and "electron25" run things as well.
  const auto end = name.find_last_not_of("0123456789.");
  return contains(runners, name) ||
         (end != std::string_view::npos && contains(runners, name.substr(0, end + 1)));
}

DesktopEnvironment DesktopEnvironment::fromProcess() {
  DesktopEnvironment environment;
  auto data = split(environmentOr("XDG_DATA_DIRS", "/usr/local/share:/usr/share"));
  data.insert(data.begin(), directories::applicationSupport());
  data.push_back(directories::applicationSupport() + "/flatpak/exports/share");
  data.emplace_back("/var/lib/flatpak/exports/share");
  data.emplace_back("/var/lib/snapd/desktop");
  for (const auto& directory : data) {
    const auto applications = directory + "/applications";
    if (!contains(environment.entryDirectories, applications)) {
      environment.entryDirectories.push_back(applications);
    }
  }
  environment.locale =
      environmentOr("LC_ALL", environmentOr("LC_MESSAGES", environmentOr("LANG", "").c_str()).c_str());
  environment.searchPath = split(environmentOr("PATH", "/usr/local/bin:/usr/bin:/bin"));
  return environment;
}

DesktopEntryIndex::DesktopEntryIndex(DesktopEnvironment environment) : environment_(std::move(environment)) {}

std::vector<std::pair<std::string, long long>> DesktopEntryIndex::stamps() const {
  std::vector<std::pair<std::string, long long>> result;
  for (const auto& directory : environment_.entryDirectories) {
    struct stat status{};
    if (::stat(directory.c_str(), &status) != 0) continue;
    result.emplace_back(directory, status.st_mtim.tv_sec * 1'000'000'000LL + status.st_mtim.tv_nsec);
  }
  return result;
}

bool DesktopEntryIndex::refresh() {
  auto latest = stamps();
  if (latest == stamps_) return false;
  stamps_ = std::move(latest);
  read();
  return true;
}

void DesktopEntryIndex::read() {
  byId_.clear();
  byProgram_.clear();
  byLauncherDirectory_.clear();
  for (const auto& directory : environment_.entryDirectories) readDirectory(directory);
}

void DesktopEntryIndex::readDirectory(const std::string& root) {
  // What cannot be read is not there; a directory that fails midway gives what came before.
  std::error_code fault;
  fs::recursive_directory_iterator entry(root, fs::directory_options::follow_directory_symlink, fault);
  std::size_t visited = 0;
  for (; !fault && entry != fs::recursive_directory_iterator{}; entry.increment(fault)) {
    if (++visited > maximumVisited) return;
    if (entry.depth() >= maximumDepth) entry.disable_recursion_pending();
    const auto& path = entry->path().native();
    if (!path.ends_with(".desktop") || path.size() <= root.size() + 1) continue;
    if (byId_.size() >= maximumEntries) return;
    auto id = path.substr(root.size() + 1, path.size() - root.size() - 1 - ".desktop"sv.size());
    std::ranges::replace(id, '/', '-');
    if (byId_.contains(id)) continue;
    const auto text = readFile(path, maximumDesktopEntryBytes);
    if (!text) continue;
    auto parsed = parseDesktopEntry(*text, environment_.locale);
    if (!parsed) continue;
    parsed->id = std::move(id);
    add(std::move(*parsed));
  }
}

std::string DesktopEntryIndex::resolve(const std::string& program) const {
  std::vector<std::string> candidates;
  if (program.starts_with('/')) {
    candidates.push_back(program);
  } else if (!program.contains('/')) {
    for (const auto& directory : environment_.searchPath) candidates.push_back(directory + "/" + program);
  }
  for (const auto& candidate : candidates) {
    char resolved[PATH_MAX];
    if (::access(candidate.c_str(), X_OK) == 0 && ::realpath(candidate.c_str(), resolved) != nullptr) {
      return resolved;
    }
  }
  return {};
}

void DesktopEntryIndex::add(DesktopEntry parsed) {
  const auto entry = std::make_shared<const DesktopEntry>(std::move(parsed));
  byId_.emplace(entry->id, entry);
  if (entry->isHidden) return;
  // "env NAME=value program": what counts is the program.
  auto argument = entry->command.begin();
  if (fileName(*argument) == "env") {
    ++argument;
    while (argument != entry->command.end() && (argument->contains('=') || argument->starts_with('-')))
      ++argument;
  }
  if (argument == entry->command.end()) return;
  if (isProgramRunner(fileName(*argument))) {
    // An absolute path among the arguments is the script that it runs.
    argument = std::find_if(argument + 1, entry->command.end(),
                            [](const std::string& text) { return text.starts_with('/'); });
    if (argument == entry->command.end()) return;
  }
  const auto program = resolve(*argument);
  if (program.empty() || isProgramRunner(fileName(program))) return;
  byProgram_.emplace(program, entry);
  auto directory = directoryOf(program);
  for (int i = 0; i < 2; ++i) {
    if (!directory.empty() && !contains(sharedDirectories, directory)) {
      byLauncherDirectory_.emplace(directory, Launcher{entry, fileName(program)});
    }
    // "…/app/bin/app" starts "…/app/app".
    if (fileName(directory) != "bin") break;
    directory = directoryOf(directory);
  }
}

DesktopEntryIndex::Entry DesktopEntryIndex::byId(const std::string& id) const {
  const auto found = byId_.find(id);
  return found == byId_.end() || found->second->isHidden ? nullptr : found->second;
}

DesktopEntryIndex::Entry DesktopEntryIndex::byProgram(const std::string& path) const {
  if (const auto found = byProgram_.find(path); found != byProgram_.end()) return found->second;
  const auto [first, last] = byLauncherDirectory_.equal_range(directoryOf(path));
  for (auto candidate = first; candidate != last; ++candidate) {
    const auto& [entry, name] = candidate->second;
    if (areRelated(*entry, name, fileName(path))) return entry;
  }
  return nullptr;
}

}  // namespace vimbrel
