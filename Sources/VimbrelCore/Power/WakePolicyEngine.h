// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Domain/PolicyEvaluationContext.h"
#include "Domain/WakeDecision.h"

namespace vimbrel {

/// The rules in the order in which they are asked: every safety rule before every reason to hold.
enum class PolicyRule : std::uint8_t {
  masterSwitch,
  pause,
  heat,
  acOnly,
  batteryFloor,
  longestHold,
  manualHold,
  agentsAtWork,
  releaseDebounce,
  noReasonToHold,
};

/// "masterSwitch", …: the rule's name in documents.
[[nodiscard]] std::string_view rawValue(PolicyRule rule);
/// "Master switch", …: for people.
[[nodiscard]] std::string_view displayLabel(PolicyRule rule);

enum class PolicyRuleOutcome : std::uint8_t {
  passed,     ///< did not apply; the next rule was asked
  decided,    ///< the first that applied
  overruled,  ///< applies too, but an earlier rule decided
};

/// "passed", "decided", "overruled".
[[nodiscard]] std::string_view rawValue(PolicyRuleOutcome outcome);

/// How one rule fared, in words for people.
struct PolicyRuleTrace {
  PolicyRule rule = PolicyRule::masterSwitch;
  PolicyRuleOutcome outcome = PolicyRuleOutcome::passed;
  std::string saw;                   ///< the values it looked at: "14 % on battery, floor 15 %"
  std::optional<WakeDecision> says;  ///< its decision, when it applies
  std::string wouldChange;           ///< what would turn its answer around
  std::optional<Instant>
      changesAt;  ///< when that happens if nothing else does; absent when time changes nothing
};

/// A decision with the account of how every rule contributed.
struct PolicyExplanation {
  WakeDecision decision;
  std::vector<PolicyRuleTrace> rules;  ///< in order; exactly one has `decided`
};

/// Decides whether the machine should be held awake. The order of its rules is the product's safety contract:
/// any block wins over any hold, a manual one included. Stateless and pure: the result depends on the context
/// only, and all times are measured against its `now`. Any thread.
class WakePolicyEngine {
 public:
  [[nodiscard]] WakeDecision evaluate(const PolicyEvaluationContext& context) const;

  /// The same rules, and what each of them saw.
  [[nodiscard]] PolicyExplanation explain(const PolicyEvaluationContext& context) const;
};

}  // namespace vimbrel
