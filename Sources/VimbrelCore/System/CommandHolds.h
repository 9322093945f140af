// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Support/Instant.h"
#include "Support/Published.h"
#include "Support/TaskQueue.h"
#include "System/CoordinatorService.h"

namespace vimbrel {

/// A hold for as long as one program runs, but not beyond `until`.
struct CommandHold {
  std::string command;  ///< for people
  Instant until{};
  bool coversLid = false;
  bool operator==(const CommandHold&) const = default;
};

/// The holds of programs that run under one. They are reasons to hold like any other: every safety rule of
/// the policy comes first. Queue: the main queue.
class CommandHolds final : public CoordinatorService {
 public:
  static constexpr std::size_t maximumHolds = 64;

  /// The hold lasts as long as the token, which must not outlive this thread's queue; an empty token when
  /// there are too many. Ask for an evaluation afterwards.
  [[nodiscard]] Token add(CommandHold hold);
  /// Those whose time is not up then, the oldest first.
  [[nodiscard]] std::vector<CommandHold> active(Instant now) const;

  /// Sent when a hold came or was taken back; one whose time is up only leaves `active`.
  [[nodiscard]] ChangeSignal& changed() { return changed_; }

  void willDecide(PolicyEvaluationContext& context) override;

 private:
  using Holds = std::map<std::uint64_t, CommandHold>;
  std::uint64_t next_ = 0;
  std::shared_ptr<Holds> holds_ = std::make_shared<Holds>();
  ChangeSignal changed_;
};

}  // namespace vimbrel
