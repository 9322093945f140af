// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "DeepHold/DeepHoldLeaseStore.h"
#include "Support/Log.h"

namespace vimbrel {

/// A sleep setting in memory that records every write.
class RecordingPower final : public SystemPowerControlling {
 public:
  bool readSleepDisabled() override { return disabled; }
  bool writeSleepDisabled(bool value) override {
    writes.push_back(value);
    if (works) disabled = value;
    return works;
  }
  bool disabled = false;
  bool works = true;
  std::vector<bool> writes;
};

/// Collects the log of its lifetime, one "level text" a line.
class LogCapture {
 public:
  LogCapture() {
    previous_ = logging::setSink([this](LogLevel level, std::string_view, std::string_view,
                                        std::string_view text) {
      const char* name = level == LogLevel::error ? "error " : level == LogLevel::info ? "info " : "debug ";
      lines.push_back(name + std::string(text));
    });
  }
  ~LogCapture() { logging::setSink(std::move(previous_)); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> lines;

 private:
  logging::Sink previous_;
};

/// A lease store on a clock that the test moves.
struct LeaseStoreWorld {
  explicit LeaseStoreWorld(std::optional<std::string> stateFile = std::nullopt) : file(std::move(stateFile)) {
    restart();
  }
  void restart() {
    store = std::make_unique<DeepHoldLeaseStore>(power, file, [this] { return now; }, Durability::process);
  }

  std::shared_ptr<RecordingPower> power = std::make_shared<RecordingPower>();
  Instant now = instantFromReferenceSeconds(1000);
  std::optional<std::string> file;
  std::unique_ptr<DeepHoldLeaseStore> store;
};

}  // namespace vimbrel
