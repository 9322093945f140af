// SPDX-License-Identifier: Apache-2.0
#include "Control/DeepHoldMethods.h"

#include "Control/RpcResult.h"
#include "Control/StatusMethods.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

constexpr double maximumHoldSeconds = 7.0 * 24 * 3600;
constexpr std::size_t maximumCommandBytes = 200;

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

json textOrNull(const std::optional<std::string>& text) { return text ? json(*text) : json(nullptr); }

json dateOrNull(const std::optional<Instant>& date) {
  return date ? json(formatIso8601(*date)) : json(nullptr);
}

RpcResult holdWhile(const ControlledApplication& application, const json& params, RpcPeer& peer) {
  StrictJsonObject fields(params, "holdWhile");
  CommandHold hold;
  hold.command = fields.string("command");
  const double seconds = fields.number("seconds");
  hold.coversLid = fields.optionalBoolean("lid").value_or(false);
  if (fields.error()) return invalid(*fields.error());
  if (hold.command.empty() || hold.command.size() > maximumCommandBytes) {
    return invalid("\"command\" must have 1 to 200 bytes");
  }
  if (!(seconds > 0 && seconds <= maximumHoldSeconds)) {
    return invalid(sentence("\"seconds\" must be more than 0 and at most a week"));
  }
  hold.until = application.clock.now() + Seconds(seconds);
  auto held = application.commandHolds->add(std::move(hold));
  if (!held) {
    return std::unexpected(
        RpcError{RpcFault::operationFailed, sentence("too many commands run under a hold already")});
  }
  // The end of the connection is the end of the command, however either came.
  peer.keep(Token([held = std::make_shared<Token>(std::move(held)), coordinator = &application.coordinator] {
    held->reset();
    coordinator->scheduleEvaluation();
  }));
  application.coordinator.evaluate();
  return statusDocument(application);
}

}  // namespace

json helperDocument(const ControlledApplication& application) {
  if (application.deepHold == nullptr) return nullptr;
  const auto& status = application.deepHold->helperStatus().get();
  if (!status) return nullptr;
  return {{"isHelperInstalled", status->isHelperInstalled},
          {"isDeepHoldActive", status->isDeepHoldActive},
          {"activeLeaseId", textOrNull(status->activeLeaseId)},
          {"leaseExpiresAt", dateOrNull(status->leaseExpiresAt)},
          {"currentSystemSleepDisabled", status->currentSystemSleepDisabled}};
}

json closedLidDocument(const ControlledApplication& application) {
  if (application.deepHold == nullptr) return nullptr;
  const auto report = application.deepHold->report();
  return {{"cover", rawValue(report.cover)},   {"coveredBy", textOrNull(report.coveredBy)},
          {"until", dateOrNull(report.until)}, {"explanation", report.explanation},
          {"remedy", report.remedy},           {"helper", helperDocument(application)}};
}

json commandHoldsDocument(const ControlledApplication& application) {
  json holds = json::array();
  if (application.commandHolds == nullptr) return holds;
  for (const auto& hold : application.commandHolds->active(application.clock.now())) {
    holds.push_back(
        {{"command", hold.command}, {"until", formatIso8601(hold.until)}, {"coversLid", hold.coversLid}});
  }
  return holds;
}

Token addDeepHoldMethods(ControlServer& server, const ControlledApplication& application) {
  server.methods().addForPeer("holdWhile", [application](const json& params, RpcPeer& peer) -> RpcResult {
    return holdWhile(application, params, peer);
  });
  const auto changed = [&server] { server.stateDidChange(); };
  auto tokens = std::make_shared<std::vector<Token>>();
  tokens->push_back(application.deepHold->helperStatus().subscribe(changed));
  tokens->push_back(application.deepHold->reportChanged().subscribe(changed));
  // A hold in the place of another may be the same to the policy and end at another time.
  tokens->push_back(application.commandHolds->changed().subscribe(changed));
  return Token{[tokens] { tokens->clear(); }};
}

}  // namespace vimbrel
