// SPDX-License-Identifier: Apache-2.0
#include "System/DiagnosticsExporter.h"

#include <nlohmann/json.hpp>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "Domain/AgentSessionCodec.h"
#include "Domain/PowerSourceSnapshotCodec.h"
#include "Support/StrictJson.h"

namespace vimbrel {
namespace {

using nlohmann::json;

constexpr auto dates = DateCoding::iso8601;

}  // namespace

DiagnosticsReport DiagnosticsExporter::generateReport(
    const WakeDecision& currentDecision, const PowerSourceSnapshot& powerSource,
    SystemThermalState thermalState, const SessionSnapshot::Entries& sessions,
    const std::optional<DeepSleepStatus>& deepHelperStatus) const {
  DiagnosticsReport report;
  if (describeSystem_) report.osVersion = describeSystem_();
  report.timestamp = clock_.now();
  report.policyDecision = currentDecision.statusDescription();
  report.isHolding = currentDecision.isHolding();
  report.batteryStatus = powerSource;
  report.thermalState = rawValue(thermalState);
  report.deepHelperStatus = deepHelperStatus;
  for (const auto& session : sessions) {
    if (session->isWorking()) ++report.activeAgentCount;
    report.sessions.push_back(*session);
  }
  if (listAssertions_) report.systemAssertionsSummary = listAssertions_();
  return report;
}

std::string DiagnosticsExporter::exportJSON(const DiagnosticsReport& report) {
  json sessions = json::array();
  for (const auto& session : report.sessions) sessions.push_back(json(toJson(session, dates)));
  json document{{"appName", report.appName},
                {"appVersion", report.appVersion},
                {"osVersion", report.osVersion},
                {"architecture", report.architecture},
                {"timestamp", encodeInstant(report.timestamp, dates)},
                {"policyDecision", report.policyDecision},
                {"isHolding", report.isHolding},
                {"activeAgentCount", report.activeAgentCount},
                {"batteryStatus", json(toJson(report.batteryStatus))},
                {"thermalState", report.thermalState},
                {"sessions", std::move(sessions)},
                {"systemAssertionsSummary", report.systemAssertionsSummary}};
  if (report.deepHelperStatus) document["deepHelperStatus"] = toJson(*report.deepHelperStatus, dates);
  try {
    return document.dump(2);
  } catch (const json::exception&) {
    return "{}";  // A text is not UTF-8.
  }
}

std::expected<DiagnosticsReport, DecodeError> DiagnosticsExporter::parse(std::string_view text) {
  const auto document = parseJson(text);
  if (!document) return std::unexpected(DecodeError{"diagnostics: not valid JSON"});
  StrictJsonObject object(*document, "diagnostics");
  DiagnosticsReport report;
  report.appName = object.string("appName");
  report.appVersion = object.string("appVersion");
  report.osVersion = object.string("osVersion");
  report.architecture = object.string("architecture");
  report.timestamp = readInstant(object, "timestamp", dates);
  report.policyDecision = object.string("policyDecision");
  report.isHolding = object.boolean("isHolding");
  report.activeAgentCount = object.integer("activeAgentCount");
  report.thermalState = object.string("thermalState");
  report.systemAssertionsSummary = object.string("systemAssertionsSummary");
  const auto* battery = object.member("batteryStatus");
  const auto* sessions = object.member("sessions");
  if (battery == nullptr) object.fail("batteryStatus", "is missing");
  if (sessions == nullptr || !sessions->is_array()) object.fail("sessions", "is not a list");
  if (object.error()) return std::unexpected(DecodeError{*object.error()});

  auto power = powerSourceSnapshotFromJson(*battery);
  if (!power) return std::unexpected(power.error());
  report.batteryStatus = *std::move(power);
  for (const auto& each : *sessions) {
    auto session = agentSessionFromJson(each, dates);
    if (!session) return std::unexpected(session.error());
    report.sessions.push_back(*std::move(session));
  }
  if (const auto* helper = object.member("deepHelperStatus")) {
    auto status = deepSleepStatusFromJson(*helper, dates);
    if (!status) return std::unexpected(status.error());
    report.deepHelperStatus = *std::move(status);
  }
  return report;
}

}  // namespace vimbrel
