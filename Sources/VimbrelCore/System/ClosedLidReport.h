// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "DeepHold/DeepHoldProtocol.h"
#include "Domain/WakeDecision.h"

namespace vimbrel {

/// Whether closing the lid now would put the machine to sleep.
enum class LidCover : std::uint8_t {
  off,        ///< the setting does not ask for it
  notNeeded,  ///< asked for, and nothing is held now
  covered,    ///< the lid may be closed
  uncovered,  ///< it should be covered and is not
};

/// "off", "notNeeded", "covered", "uncovered".
[[nodiscard]] std::string_view rawValue(LidCover cover);

/// How the closed lid stands, for people.
struct ClosedLidReport {
  LidCover cover = LidCover::off;
  std::optional<std::string> coveredBy;  ///< "the system's helper", "your own helper", and for whom
  std::optional<Instant> until;          ///< when the lease runs out unless it is renewed
  std::string explanation;               ///< one sentence
  std::string remedy;                    ///< what to do; empty when there is nothing to do
  bool operator==(const ClosedLidReport&) const = default;
};

struct ClosedLidFacts {
  bool enabled = false;  ///< the decisions of now would ask for the deep hold
  WakeDecision decision = WakeDecision::release("");
  std::optional<DeepSleepStatus> status;
  std::optional<std::string> ownLease;
  std::string refusal;  ///< of the last acquire
  bool isSystemHelper = false;
};

[[nodiscard]] ClosedLidReport describeClosedLid(const ClosedLidFacts& facts);

/// What to do about a helper's refusal; empty when that is not known.
[[nodiscard]] std::string remedyForRefusal(std::string_view refusal, bool isHelperInstalled);

}  // namespace vimbrel
