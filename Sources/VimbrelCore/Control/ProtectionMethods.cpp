// SPDX-License-Identifier: Apache-2.0
#include "Control/ProtectionMethods.h"

#include "Control/DeepHoldMethods.h"
#include "Control/RpcResult.h"
#include "Control/StatusMethods.h"
#include "Domain/WakeDecisionCodec.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

/// Longer than any pause that is meant.
constexpr double maximumPauseSeconds = 366.0 * 24 * 3600;

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

RpcResult stateAfter(const ControlledApplication& application, const SettingsStore::WriteResult& written) {
  if (!written) return std::unexpected(RpcError{RpcFault::operationFailed, written.error().text});
  application.coordinator.evaluate();
  return statusDocument(application);
}

RpcResult pause(const ControlledApplication& application, const json& params) {
  StrictJsonObject fields(params, "pause");
  const auto seconds = fields.optionalNumber("seconds");
  const auto until = fields.optionalString("until");
  if (fields.error()) return invalid(*fields.error());
  if (seconds.has_value() == until.has_value()) return invalid("give either \"seconds\" or \"until\"");
  auto& settings = application.coordinator.settings();
  if (seconds) {
    if (!(*seconds > 0 && *seconds <= maximumPauseSeconds)) {
      return invalid(sentence("\"seconds\" must be more than 0 and at most a year"));
    }
    return stateAfter(application, settings.pause(Seconds(*seconds)));
  }
  const auto end = parseIso8601(*until);
  if (!end) return invalid("\"until\" must be an ISO 8601 time");
  const auto left = *end - application.clock.now();
  if (!(left > Seconds(0) && left <= Seconds(maximumPauseSeconds))) {
    return invalid(sentence("\"until\" must be in the future, within a year"));
  }
  return stateAfter(application, settings.setPauseUntil(end));
}

RpcResult hold(const ControlledApplication& application, const json& params) {
  StrictJsonObject fields(params, "hold");
  const bool on = fields.boolean("on");
  if (fields.error()) return invalid(*fields.error());
  return stateAfter(application, application.coordinator.settings().setManualHoldEnabled(on));
}

RpcResult why(const ControlledApplication& application) {
  auto context = application.coordinator.lastContext();
  if (!context) {
    return std::unexpected(RpcError{RpcFault::operationFailed, sentence("no decision has been made yet")});
  }
  context->now = application.clock.now();
  const auto explanation = WakePolicyEngine().explain(*context);
  json rules = json::array();
  for (const auto& trace : explanation.rules) {
    rules.push_back({{"rule", rawValue(trace.rule)},
                     {"label", displayLabel(trace.rule)},
                     {"outcome", rawValue(trace.outcome)},
                     {"saw", trace.saw},
                     {"says", trace.says ? json(toJson(*trace.says)) : json(nullptr)},
                     {"saysDescription", trace.says ? json(trace.says->statusDescription()) : json(nullptr)},
                     {"wouldChange", trace.wouldChange},
                     {"changesAt", trace.changesAt ? json(formatIso8601(*trace.changesAt)) : json(nullptr)}});
  }
  return json{{"decision", json(toJson(explanation.decision))},
              {"statusDescription", explanation.decision.statusDescription()},
              {"now", formatIso8601(context->now)},
              {"simulated", application.platform.assertions->isSimulated()},
              {"closedLid", closedLidDocument(application)},
              {"rules", std::move(rules)}};
}

}  // namespace

void addProtectionMethods(ControlServer& server, const ControlledApplication& application) {
  server.methods().add("pause",
                       [application](const json& params) -> RpcResult { return pause(application, params); });
  server.methods().add("resume", [application](const json&) -> RpcResult {
    return stateAfter(application, application.coordinator.settings().resume());
  });
  server.methods().add("hold",
                       [application](const json& params) -> RpcResult { return hold(application, params); });
  server.methods().add("why", [application](const json&) -> RpcResult { return why(application); });
}

}  // namespace vimbrel
