// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Domain/UsageEvent.h"

namespace vimbrel {

/// Claude Code repeats messages in the transcripts of resumed conversations and of sub-agents, under another
/// session. The first session that a message was seen in owns it: later readings are booked there, where the
/// deduplication finds them. Any thread.
class TurnOwners {
 public:
  /// Gives the event the session that owns its turn. Events of other agents, and those without a message id
  /// of the vendor's form, stay as they are.
  void assign(UsageEvent& event);
  /// Learns what a store holds.
  void learn(const UsageEventView& event);

 private:
  [[nodiscard]] static bool isOwnable(AgentType agent, std::string_view turn);
  std::uint32_t indexOf(std::string_view session);

  std::mutex lock_;
  // Fingerprints rather than texts: a history has hundreds of thousands of messages. Two ids that share one
  // would have to share 64 bits.
  std::unordered_map<std::uint64_t, std::uint32_t> owners_;
  std::unordered_map<std::string, std::uint32_t> sessionIndex_;
  std::vector<std::string> sessions_;
};

}  // namespace vimbrel
