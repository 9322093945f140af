// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/RecentFiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace vimbrel {
namespace {

// A change that no notification told of is found after this long at the latest.
constexpr std::chrono::minutes walkInterval{2};
// Agents nest their logs three or four deep; a bound keeps a strange tree from holding us up.
constexpr int deepest = 16;

std::string_view nameOf(std::string_view path) { return path.substr(path.rfind('/') + 1); }

}  // namespace

RecentFiles::RecentFiles(std::vector<std::string> roots, Filter wanted, const TreeChangesFactory& changes,
                         const Clock& clock)
    : wanted_(std::move(wanted)), clock_(clock) {
  for (auto& root : roots) {
    auto watch = changes ? changes(root) : std::make_unique<UnknownTreeChanges>();
    roots_.push_back({std::move(root), std::move(watch)});
  }
}

bool RecentFiles::refresh() {
  const auto now = clock_.monotonic();
  const bool walkIsDue = now >= nextWalk_;
  if (walkIsDue) nextWalk_ = now + walkInterval;
  bool changed = walkIsDue;
  for (auto& root : roots_) {
    const auto paths = root.changes->take();
    if (!paths || walkIsDue) {
      walk(root.path);
      changed = true;
      continue;
    }
    for (const auto& path : *paths) look(path);
    changed = changed || !paths->empty();
  }
  return changed;
}

void RecentFiles::walk(const std::string& root) {
  forgetBelow(root);
  std::error_code error;  // What cannot be listed has no files for us; the next walk tries again.
  using Walker = std::filesystem::recursive_directory_iterator;
  Walker entry(root, std::filesystem::directory_options::skip_permission_denied, error);
  for (const Walker end; !error && entry != end; entry.increment(error)) {
    const auto& path = entry->path().native();
    if (nameOf(path).starts_with('.')) {
      entry.disable_recursion_pending();
      continue;
    }
    if (entry.depth() >= deepest) entry.disable_recursion_pending();
    look(path);
  }
}

void RecentFiles::look(const std::string& path) {
  if (!wanted_(nameOf(path))) return;
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    modified_.erase(path);
    return;
  }
  modified_[path] =
      std::chrono::seconds{status.st_mtim.tv_sec} + std::chrono::nanoseconds{status.st_mtim.tv_nsec};
}

void RecentFiles::forgetBelow(const std::string& root) {
  std::erase_if(modified_, [&](const auto& entry) {
    return entry.first.size() > root.size() && entry.first.starts_with(root) &&
           entry.first[root.size()] == '/';
  });
}

std::vector<std::string> RecentFiles::newest(std::size_t count) const {
  std::vector<std::pair<std::chrono::nanoseconds, const std::string*>> order;
  order.reserve(modified_.size());
  for (const auto& [path, time] : modified_) order.emplace_back(time, &path);
  count = std::min(count, order.size());
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(),
                    [](const auto& a, const auto& b) {
                      return a.first != b.first ? a.first > b.first : *a.second < *b.second;
                    });
  std::vector<std::string> paths;
  for (std::size_t i = 0; i < count; ++i) paths.push_back(*order[i].second);
  return paths;
}

std::optional<Instant> RecentFiles::modifiedAt(const std::string& path) const {
  const auto known = modified_.find(path);
  if (known == modified_.end()) return std::nullopt;
  return instantFromUnixSeconds(Seconds{known->second}.count());
}

std::vector<std::string> RecentFiles::all() const {
  std::vector<std::string> paths;
  for (const auto& [path, time] : modified_) paths.push_back(path);
  return paths;
}

}  // namespace vimbrel
