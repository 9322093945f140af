// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxLidSwitch.h"

#include <charconv>
#include <filesystem>
#include <utility>

#include "Platform/Linux/SmallFile.h"

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

constexpr const char* loginService = "org.freedesktop.login1";

/// /proc/acpi/button/lid/<name>/state of the first lid; empty when there is none.
std::string findStateFile(const std::string& procRoot) {
  std::error_code error;  // Most machines have no such directory.
  for (std::filesystem::directory_iterator entry(procRoot + "/acpi/button/lid", error), end;
       !error && entry != end; entry.increment(error)) {
    const auto path = entry->path().string() + "/state";
    if (readSmallFile(path)) return path;
  }
  return "";
}

/// True when an input device has the switch SW_LID, which is bit 0 of its switches, written in hexadecimal.
bool hasLidSwitch(const std::string& sysRoot) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry(sysRoot + "/class/input", error), end;
       !error && entry != end; entry.increment(error)) {
    const auto text = readSmallFile(entry->path().string() + "/device/capabilities/sw");
    if (!text) continue;
    const auto lowest = text->substr(text->find_last_of(' ') + 1);
    unsigned long long bits = 0;
    const auto result = std::from_chars(lowest.data(), lowest.data() + lowest.size(), bits, 16);
    if (result.ec == std::errc{} && (bits & 1) != 0) return true;
  }
  return false;
}

}  // namespace

LinuxLidSwitch::LinuxLidSwitch(std::shared_ptr<TaskQueue> queue, std::shared_ptr<BusConnection> systemBus,
                               const std::string& sysRoot, const std::string& procRoot)
    : queue_(std::move(queue)), systemBus_(std::move(systemBus)), stateFile_(findStateFile(procRoot)) {
  hasLid_ = !stateFile_.empty() || hasLidSwitch(sysRoot);
}

std::optional<bool> LinuxLidSwitch::readFile() const {
  const auto text = readSmallFile(stateFile_);
  if (!text) return std::nullopt;
  return text->find("closed") != std::string::npos;
}

void LinuxLidSwitch::askLogind() {
  systemBus_->getProperty(loginService, "/org/freedesktop/login1", "org.freedesktop.login1.Manager",
                          "LidClosed", [weak = std::weak_ptr(logind_), queue = queue_](BusReply reply) {
                            const auto state = weak.lock();
                            if (!state) return;
                            state->answered = true;
                            // A logind that is away for a moment leaves the lid as it was.
                            if (reply && reply->enter('v', "b")) state->closed = reply->readBoolean();
                            // Somebody may be waiting on the bus just now: what follows runs later.
                            queue->post([weak] {
                              const auto alive = weak.lock();
                              if (alive && alive->told) alive->told();
                            });
                          });
}

std::optional<bool> LinuxLidSwitch::isClosed() {
  if (!hasLid_) return std::nullopt;
  if (!stateFile_.empty()) return readFile();
  if (!logind_->answered) {
    askLogind();
    BusConnection::waitFor(
        {systemBus_.get()}, [&] { return logind_->answered; }, std::chrono::steady_clock::now() + 200ms);
  }
  return logind_->closed;
}

Token LinuxLidSwitch::watch(std::function<void()> changed) {
  if (!tick_ && hasLid_) {
    announced_ = isClosed();
    logind_->told = [this] { compare(); };
    const auto interval = stateFile_.empty() ? 5s : 2s;
    tick_ = queue_->every(interval, interval, TimerPrecision::shared, [this] {
      if (stateFile_.empty()) {
        askLogind();
      } else {
        compare();
      }
    });
  }
  return changed_.subscribe(std::move(changed));
}

void LinuxLidSwitch::compare() {
  const auto now = isClosed();
  if (std::exchange(announced_, now) != now) changed_.send();
}

}  // namespace vimbrel
