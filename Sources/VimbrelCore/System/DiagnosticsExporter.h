// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "DeepHold/DeepHoldProtocol.h"
#include "Domain/AgentSession.h"
#include "Domain/DecodeError.h"
#include "Domain/PowerSourceSnapshot.h"
#include "Domain/SessionSnapshot.h"
#include "Domain/ThermalState.h"
#include "Domain/WakeDecision.h"
#include "Support/Clock.h"

namespace vimbrel {

/// The running system at one moment, for support. Keys of the document are the field names.
struct DiagnosticsReport {
  std::string appName = "Vimbrel";
  std::string appVersion = "1.0.0";
  std::string osVersion;  ///< of the operating system, the processor's architecture included
  /// A fixed mark of the document's form, the same on every machine; `osVersion` has the real one.
  std::string architecture = "arm64";
  Instant timestamp{};
  std::string policyDecision;  ///< the decision as a sentence
  bool isHolding = false;
  std::int64_t activeAgentCount = 0;  ///< sessions that are working or waiting
  PowerSourceSnapshot batteryStatus;
  std::string thermalState;
  std::optional<DeepSleepStatus> deepHelperStatus;
  std::vector<AgentSession> sessions;
  std::string systemAssertionsSummary;  ///< the operating system's own list; empty when it has none
  bool operator==(const DiagnosticsReport&) const = default;
};

/// Gathers and encodes diagnostics. Any thread; never fails outward.
class DiagnosticsExporter {
 public:
  /// `clock` must outlive the object. Both functions may be empty; `listAssertions` may block for seconds.
  DiagnosticsExporter(const Clock& clock, std::function<std::string()> describeSystem,
                      std::function<std::string()> listAssertions)
      : clock_(clock),
        describeSystem_(std::move(describeSystem)),
        listAssertions_(std::move(listAssertions)) {}

  [[nodiscard]] DiagnosticsReport generateReport(
      const WakeDecision& currentDecision, const PowerSourceSnapshot& powerSource,
      SystemThermalState thermalState, const SessionSnapshot::Entries& sessions,
      const std::optional<DeepSleepStatus>& deepHelperStatus) const;

  /// Pretty-printed, keys in alphabetical order, dates in ISO 8601; "{}" when a text is not UTF-8.
  [[nodiscard]] static std::string exportJSON(const DiagnosticsReport& report);
  /// Reads such a document, strictly.
  [[nodiscard]] static std::expected<DiagnosticsReport, DecodeError> parse(std::string_view text);

 private:
  const Clock& clock_;
  const std::function<std::string()> describeSystem_;
  const std::function<std::string()> listAssertions_;
};

}  // namespace vimbrel
