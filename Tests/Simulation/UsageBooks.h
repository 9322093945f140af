// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "AgentMonitoring/UsageCoordinator.h"
#include "Simulation/SimulatedDisk.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// An agent that writes its log while the application reads it, and books, apart from the application's, of
/// what must be stored because of it. A promise that is broken is told as a sentence.
class UsageBooks {
 public:
  /// Draws a number from 0 to below its argument.
  using Draw = std::function<int(int)>;

  explicit UsageBooks(const SimulatedDisk& disk);

  /// The recorder of usage for the next launch, which keeps its store in the directory.
  std::shared_ptr<UsageCoordinator> makeCoordinator(VirtualTime& time, const std::string& directory);
  /// The application is gone, and its store with it.
  void storeClosed() { store_ = nullptr; }
  [[nodiscard]] bool isStoreOpen() const { return store_ != nullptr; }

  /// Some messages come to one of the agent's logs, some of them torn; the log's name.
  std::string agentWrites(const Draw& draw, Instant now);
  /// What was torn off is written.
  void agentFinishesItsLines();

  /// All that is stored now must be there after a crash.
  void remember();
  [[nodiscard]] bool isStored(const std::string& key) const { return stored().contains(key); }
  /// Nothing is stored twice, or that nobody wrote, and every sum is that of the stored events.
  [[nodiscard]] std::optional<std::string> check() const;
  /// Every message of the log is stored with its highest count.
  [[nodiscard]] std::optional<std::string> checkAllIsStored() const;
  /// The first promise that was broken when a store was opened.
  [[nodiscard]] const std::optional<std::string>& violation() const { return violation_; }

 private:
  /// Total tokens by deduplication key.
  using Totals = std::map<std::string, std::int64_t>;

  void append(const std::string& log, const std::string& text);
  [[nodiscard]] Totals stored() const;
  [[nodiscard]] std::optional<std::string> differenceFromRemembered() const;

  const SimulatedDisk& disk_;
  TemporaryDirectory logs_;
  UsageStore* store_ = nullptr;  ///< while the application lives and has opened it
  Totals remembered_;
  Totals written_;
  std::map<std::string, std::string> torn_;  ///< what of each log is still to be written
  int nextMessage_ = 100;
  std::optional<std::string> violation_;
};

}  // namespace vimbrel
