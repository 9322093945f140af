// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/DesktopApplications.h"

#include <climits>
#include <cstdlib>
#include <set>
#include <utility>

#include "Platform/Linux/ApplicationScope.h"

namespace vimbrel {
namespace {

using std::string_view_literals::operator""sv;

// A scan reads the table first and asks for the applications right after.
constexpr std::chrono::milliseconds sameRound{500};

std::string withoutLinks(const std::string& path) {
  char resolved[PATH_MAX];
  return ::realpath(path.c_str(), resolved) != nullptr ? resolved : path;
}

/// The value of a variable in the text of `/proc/PID/environ`.
std::string variable(std::string_view environment, std::string_view name) {
  while (!environment.empty()) {
    const auto end = environment.find('\0');
    const auto assignment = environment.substr(0, end);
    if (assignment.starts_with(name)) return std::string(assignment.substr(name.size()));
    environment = end == std::string_view::npos ? std::string_view{} : environment.substr(end + 1);
  }
  return {};
}

std::string secondArgument(std::string_view arguments) {
  const auto first = arguments.find('\0');
  if (first == std::string_view::npos) return {};
  const auto rest = arguments.substr(first + 1);
  return std::string(rest.substr(0, rest.find('\0')));
}

}  // namespace

DesktopApplications::DesktopApplications(std::shared_ptr<ProcessTable> table, const Clock& clock,
                                         DesktopEnvironment environment)
    : table_(std::move(table)), clock_(clock), index_(std::move(environment)) {}

DesktopApplications::~DesktopApplications() {
  const std::lock_guard guard(table_->lock());
  for (const auto& [pid, found] : found_) table_->unwatch(pid);
  table_->detach(*this);
}

std::vector<RunningApplication> DesktopApplications::list() {
  const std::lock_guard guard(table_->lock());
  if (!table_->reader().isUsable()) return {};
  refreshEntries();
  table_->refreshIfOlderThan(sameRound);
  for (const auto pid : std::exchange(pending_, {})) examine(pid);
  if (std::exchange(isOutdated_, false)) rebuild();
  return applications_;
}

void DesktopApplications::refreshEntries() {
  const auto now = clock_.monotonic();
  if (entriesCheckedAt_ && now - *entriesCheckedAt_ < entriesPeriod) return;
  const bool isFirst = !entriesCheckedAt_;
  entriesCheckedAt_ = now;
  if (!index_.refresh() && !isFirst) return;
  // Every process may be another application now.
  table_->detach(*this);
  table_->attach(*this);
  table_->refresh();
}

void DesktopApplications::processChanged(std::int32_t pid, std::string_view /*command*/,
                                         ProcReader::Kind kind) {
  if (kind == ProcReader::Kind::program) {
    pending_.push_back(pid);
  } else {
    processGone(pid);
  }
}

void DesktopApplications::processGone(std::int32_t pid) {
  if (found_.erase(pid) == 0) return;
  table_->unwatch(pid);
  isOutdated_ = true;
}

void DesktopApplications::examine(std::int32_t pid) {
  auto now = recognise(pid);
  if (!now) return processGone(pid);
  const auto known = found_.find(pid);
  if (known != found_.end() && known->second == *now) return;
  if (known == found_.end()) table_->watch(pid);
  found_.insert_or_assign(pid, std::move(*now));
  isOutdated_ = true;
}

std::optional<DesktopApplications::Found> DesktopApplications::recognise(std::int32_t pid) {
  Found found;
  auto& reader = table_->reader();
  if (auto scope = parseApplicationScope(reader.readFile(pid, "cgroup"))) {
    found.id = std::move(scope->applicationId);
    found.unit = std::move(scope->unit);
    found.mainPid = scope->mainPid;
    if (const auto entry = index_.byId(found.id)) found.name = entry->localizedName;
  } else if (const auto entry = index_.isEmpty() ? nullptr : entryOfProgram(pid)) {
    found.id = entry->id;
    found.name = entry->localizedName;
  } else {
    return std::nullopt;
  }
  found.parent = reader.parentOf(pid);
  return found;
}

DesktopEntryIndex::Entry DesktopApplications::entryOfProgram(std::int32_t pid) {
  auto& reader = table_->reader();
  auto program = reader.readLink(pid, "exe");
  // An update replaced the file beneath the running application.
  constexpr auto replaced = " (deleted)"sv;
  if (program.ends_with(replaced)) program.resize(program.size() - replaced.size());
  if (program.empty()) return nullptr;
  if (program.starts_with("/tmp/.mount_")) {
    // An AppImage runs from a mount of its own; its environment tells which file it came from.
    const auto image = variable(reader.readFile(pid, "environ"), "APPIMAGE=");
    return image.empty() ? nullptr : index_.byProgram(withoutLinks(image));
  }
  if (isProgramRunner(std::string_view(program).substr(program.rfind('/') + 1))) {
    const auto script = secondArgument(reader.readFile(pid, "cmdline"));
    return script.starts_with('/') ? index_.byProgram(withoutLinks(script)) : nullptr;
  }
  // The runtime of an AppImage only serves the mount.
  if (program.ends_with(".AppImage")) return nullptr;
  return index_.byProgram(program);
}

void DesktopApplications::rebuild() {
  // Helpers of an application execute the same program or stand in the same unit as their parents.
  std::map<std::string_view, std::int32_t> mainOfUnit;
  std::set<std::int32_t> mains;
  for (const auto& [pid, found] : found_) {
    if (!found.unit.empty()) {
      auto& main = mainOfUnit.try_emplace(found.unit, pid).first->second;
      if (pid == found.mainPid) main = pid;
      continue;
    }
    const auto parent = found_.find(found.parent);
    if (parent == found_.end() || parent->second.id != found.id) mains.insert(pid);
  }
  for (const auto& [unit, pid] : mainOfUnit) mains.insert(pid);
  applications_.clear();
  for (const auto pid : mains) {
    const auto& found = found_.at(pid);
    applications_.push_back({found.name, found.id, pid});
  }
}

}  // namespace vimbrel
