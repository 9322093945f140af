// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "Domain/SafetyBlock.h"

namespace vimbrel {

/// The policy's one output: hold the machine awake, let it sleep, or refuse protection for a safety reason.
class WakeDecision {
 public:
  struct Hold {
    std::string reason;
    std::int64_t activeAgentCount = 0;
    bool requiresDeepHold = false;  ///< asks for the closed-lid hold too
    bool operator==(const Hold&) const = default;
  };
  struct Release {
    std::string reason;
    bool operator==(const Release&) const = default;
  };
  struct Blocked {
    SafetyBlock block = SafetyBlock::masterDisabled;
    bool operator==(const Blocked&) const = default;
  };

  static WakeDecision hold(std::string reason, std::int64_t activeAgentCount, bool requiresDeepHold) {
    return WakeDecision{Hold{std::move(reason), activeAgentCount, requiresDeepHold}};
  }
  static WakeDecision release(std::string reason) { return WakeDecision{Release{std::move(reason)}}; }
  static WakeDecision blocked(SafetyBlock block) { return WakeDecision{Blocked{block}}; }

  [[nodiscard]] bool isHolding() const { return std::holds_alternative<Hold>(value_); }
  [[nodiscard]] bool isBlocked() const { return std::holds_alternative<Blocked>(value_); }
  /// The payload, or null when the decision is another one.
  [[nodiscard]] const Hold* asHold() const { return std::get_if<Hold>(&value_); }
  [[nodiscard]] const Release* asRelease() const { return std::get_if<Release>(&value_); }
  [[nodiscard]] const Blocked* asBlocked() const { return std::get_if<Blocked>(&value_); }

  /// "Active (2 working agents) — Claude Code, Codex CLI working", "Sleep enabled — …", "Safety blocked: …".
  [[nodiscard]] std::string statusDescription() const;

  bool operator==(const WakeDecision&) const = default;

 private:
  explicit WakeDecision(std::variant<Hold, Release, Blocked> value) : value_(std::move(value)) {}
  std::variant<Hold, Release, Blocked> value_;
};

}  // namespace vimbrel
