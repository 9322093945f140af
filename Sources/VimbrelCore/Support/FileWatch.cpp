// SPDX-License-Identifier: Apache-2.0
#include "Support/FileWatch.h"

#include <sys/inotify.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <set>
#include <utility>

#include "Support/Fd.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t changesOfNames = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE;
constexpr std::uint32_t endsOfDirectory = IN_DELETE_SELF | IN_MOVE_SELF;
constexpr auto lookInterval = std::chrono::seconds{1};

}  // namespace

struct FileWatch::State : std::enable_shared_from_this<State> {
  State(std::string watchedPath, TaskQueue& taskQueue, std::function<void()> whenChanged)
      : path(std::move(watchedPath)), queue(taskQueue), changed(std::move(whenChanged)) {}

  const std::string path;
  TaskQueue& queue;
  const std::function<void()> changed;
  Fd descriptor;
  std::map<int, std::set<std::string>> names;  // by watch; none for a directory above those of the files
  Token look;
  Token token;  // declared last: the watch ends before its descriptor is closed

  /// Watches what the path leads to now, and nothing else. False when a directory cannot be watched.
  bool aim() {
    const auto before = std::exchange(names, {});
    bool complete = add(path);
    std::error_code fault;
    if (fs::is_symlink(path, fault)) {
      const auto target = fs::weakly_canonical(path, fault);
      if (!fault) complete = add(target) && complete;
    }
    for (const auto& [wd, files] : before) {
      if (!names.contains(wd)) ::inotify_rm_watch(descriptor.get(), wd);
    }
    return complete;
  }

  bool add(const fs::path& file) {
    auto directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
    const int wd = watch(directory, changesOfNames);
    if (wd < 0) return false;
    names[wd].insert(file.filename().string());
    // With a directory above it, it moves away unseen.
    while (directory.has_parent_path() && directory != directory.parent_path()) {
      directory = directory.parent_path();
      if (const int above = watch(directory, 0); above >= 0) names[above];
    }
    return true;
  }

  [[nodiscard]] int watch(const fs::path& directory, std::uint32_t events) const {
    return ::inotify_add_watch(descriptor.get(), directory.c_str(),
                               events | endsOfDirectory | IN_MASK_ADD | IN_ONLYDIR);
  }

  /// Reads what is waiting; true when some of it is about one of the files, or about where they are.
  [[nodiscard]] bool drain() const {
    bool isOurs = false;
    alignas(inotify_event) std::array<char, 4096> buffer;
    for (;;) {
      const auto count = ::read(descriptor.get(), buffer.data(), buffer.size());
      if (count <= 0) return isOurs;
      for (std::ptrdiff_t at = 0; at < count;) {
        const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
        at += static_cast<std::ptrdiff_t>(sizeof(inotify_event) + event->len);
        // After an overflow anything may have happened.
        if ((event->mask & IN_Q_OVERFLOW) != 0U) isOurs = true;
        const auto found = names.find(event->wd);
        if (found == names.end()) continue;
        if ((event->mask & (endsOfDirectory | IN_UNMOUNT | IN_IGNORED)) != 0U) isOurs = true;
        if (event->len != 0 && found->second.contains(event->name)) isOurs = true;
      }
    }
  }

  void follow() {
    if (!drain()) return;
    if (findAgain()) {
      look.reset();
    } else if (!look) {
      look = queue.every(lookInterval, lookInterval, TimerPrecision::shared, [weak = weak_from_this()] {
        const auto self = weak.lock();
        if (!self || !self->findAgain()) return;
        self->look.reset();
        self->changed();
      });
    }
    changed();
  }

  /// Nobody tells when a directory that was removed is there again; nor, when the file went, whether its
  /// directory follows, as long as another process stands in it.
  bool findAgain() {
    std::error_code fault;
    return aim() && fs::exists(path, fault);
  }
};

FileWatch::FileWatch() = default;
FileWatch::FileWatch(FileWatch&&) noexcept = default;
FileWatch& FileWatch::operator=(FileWatch&&) noexcept = default;
FileWatch::~FileWatch() = default;

FileWatch FileWatch::start(const std::string& path, TaskQueue& queue, std::function<void()> changed) {
  FileWatch watch;
  auto state = std::make_shared<State>(path, queue, std::move(changed));
  state->descriptor = Fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!state->descriptor) return watch;
  state->aim();
  if (state->names.empty()) return watch;
  state->token = queue.watchReadable(state->descriptor.get(), [weak = std::weak_ptr(state)] {
    if (const auto self = weak.lock()) self->follow();
  });
  watch.state_ = std::move(state);
  return watch;
}

}  // namespace vimbrel
