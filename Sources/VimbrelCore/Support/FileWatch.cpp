// SPDX-License-Identifier: Apache-2.0
#include "Support/FileWatch.h"

#include <sys/inotify.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <utility>

#include "Support/Fd.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;

constexpr std::uint32_t events = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE;

/// Reads what is waiting; true when some of it is about one of the names.
bool drain(int descriptor, const std::set<std::pair<int, std::string>>& names) {
  bool isOurs = false;
  alignas(inotify_event) std::array<char, 4096> buffer;
  for (;;) {
    const auto count = ::read(descriptor, buffer.data(), buffer.size());
    if (count <= 0) return isOurs;
    for (std::ptrdiff_t at = 0; at < count;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer.data() + at);
      at += static_cast<std::ptrdiff_t>(sizeof(inotify_event) + event->len);
      // After an overflow anything may have happened.
      if ((event->mask & IN_Q_OVERFLOW) != 0U) isOurs = true;
      if (event->len != 0 && names.contains({event->wd, event->name})) isOurs = true;
    }
  }
}

}  // namespace

struct FileWatch::State {
  Fd descriptor;
  Token token;  // declared last: the watch ends before its descriptor is closed
};

FileWatch::FileWatch() = default;
FileWatch::FileWatch(FileWatch&&) noexcept = default;
FileWatch& FileWatch::operator=(FileWatch&&) noexcept = default;
FileWatch::~FileWatch() = default;

FileWatch FileWatch::start(const std::string& path, TaskQueue& queue, std::function<void()> changed) {
  FileWatch watch;
  auto state = std::make_unique<State>();
  state->descriptor = Fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!state->descriptor) return watch;

  std::set<std::pair<int, std::string>> names;
  const auto add = [&](const fs::path& file) {
    const auto directory = file.has_parent_path() ? file.parent_path() : fs::path(".");
    const int wd = ::inotify_add_watch(state->descriptor.get(), directory.c_str(), events | IN_ONLYDIR);
    if (wd >= 0) names.emplace(wd, file.filename().string());
  };
  add(path);
  std::error_code fault;
  if (fs::is_symlink(path, fault)) {
    const auto target = fs::weakly_canonical(path, fault);
    if (!fault) add(target);
  }
  if (names.empty()) return watch;

  state->token = queue.watchReadable(
      state->descriptor.get(),
      [descriptor = state->descriptor.get(), names = std::move(names), changed = std::move(changed)] {
        if (drain(descriptor, names)) changed();
      });
  watch.state_ = std::move(state);
  return watch;
}

}  // namespace vimbrel
