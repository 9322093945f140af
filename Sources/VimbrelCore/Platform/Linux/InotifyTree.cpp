// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/InotifyTree.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <filesystem>

namespace vimbrel {
namespace {

constexpr std::uint32_t interest = IN_MODIFY | IN_CLOSE_WRITE | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM |
                                   IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB | IN_ONLYDIR;
constexpr int deepest = 16;

bool isDirectory(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

InotifyTree::InotifyTree(std::string root) : root_(std::move(root)) {}

void InotifyTree::start() {
  directories_.clear();
  incomplete_ = false;
  inotify_ = Fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) {
    incomplete_ = true;
    return;
  }
  watch(root_, 0, nullptr);
  started_ = true;
}

void InotifyTree::watch(const std::string& directory, int depth, std::set<std::string>* found) {
  if (depth > deepest) return;
  const int number = ::inotify_add_watch(inotify_.get(), directory.c_str(), interest);
  if (number < 0) {
    incomplete_ = incomplete_ || errno == ENOSPC || errno == ENOMEM;
    return;
  }
  directories_[number] = directory;
  std::error_code error;  // A directory that vanished has nothing to watch.
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const auto& path = entry->path().native();
    std::error_code unknown;
    // Hidden directories and links are no part of the logs that are read.
    if (entry->path().filename().native().starts_with('.') || entry->is_symlink(unknown)) continue;
    if (entry->is_directory(unknown)) {
      watch(path, depth + 1, found);
    } else if (found != nullptr) {
      found->insert(path);
    }
  }
}

bool InotifyTree::readEvents(std::set<std::string>& changed) {
  alignas(inotify_event) char buffer[16384];
  bool lost = false;
  for (;;) {
    const auto got = ::read(inotify_.get(), buffer, sizeof buffer);
    if (got <= 0) return lost;
    for (std::ptrdiff_t at = 0; at < got;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<std::ptrdiff_t>(sizeof(inotify_event) + event->len);
      if ((event->mask & IN_Q_OVERFLOW) != 0) lost = true;
      const auto directory = directories_.find(event->wd);
      if (directory == directories_.end()) continue;
      if ((event->mask & (IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        // The names below a directory that was moved are not known any more; start afresh.
        lost = true;
        continue;
      }
      if ((event->mask & IN_IGNORED) != 0) {
        directories_.erase(directory);
        continue;
      }
      if (event->len == 0) continue;
      const auto path = directory->second + "/" + event->name;
      if ((event->mask & IN_ISDIR) == 0) {
        changed.insert(path);
      } else if ((event->mask & (IN_CREATE | IN_MOVED_TO)) != 0 && event->name[0] != '.') {
        watch(path, 1, &changed);
      } else if ((event->mask & IN_MOVED_FROM) != 0) {
        lost = true;
      }
    }
  }
}

std::optional<std::vector<std::string>> InotifyTree::take() {
  if (!started_) {
    start();
    return std::nullopt;
  }
  if (incomplete_) return std::nullopt;
  if (directories_.empty()) {
    // There was no tree: nothing can have changed in it until there is one.
    if (!isDirectory(root_)) return std::vector<std::string>{};
    start();
    return std::nullopt;
  }
  std::set<std::string> changed;
  if (readEvents(changed)) {
    start();
    return std::nullopt;
  }
  if (incomplete_) return std::nullopt;
  return std::vector<std::string>(changed.begin(), changed.end());
}

}  // namespace vimbrel
