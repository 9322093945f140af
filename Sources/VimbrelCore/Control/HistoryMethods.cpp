// SPDX-License-Identifier: Apache-2.0
#include "Control/HistoryMethods.h"

#include "Control/RpcResult.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

RpcResult history(const ControlledApplication& application, const json& params) {
  StrictJsonObject fields(params, "history");
  const auto since = fields.optionalString("since");
  const auto until = fields.optionalString("until");
  const auto invalid = [](std::string message) {
    return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
  };
  if (fields.error()) return invalid(*fields.error());
  const auto from = since ? parseIso8601(*since) : std::nullopt;
  const auto to = until ? parseIso8601(*until) : std::nullopt;
  if (since.has_value() != from.has_value() || until.has_value() != to.has_value()) {
    return invalid("\"since\" and \"until\" are ISO 8601 times");
  }
  std::vector<ProtectionEpisode> found;
  if (application.history != nullptr) found = application.history->episodes(from, to);
  json episodes = json::array();
  for (const auto& episode : found) episodes.push_back(json(toJson(episode)));
  return json{{"episodes", std::move(episodes)}, {"totals", json(toJson(totalsOf(found)))}};
}

}  // namespace

void addHistoryMethods(ControlServer& server, const ControlledApplication& application) {
  server.methods().add(
      "history", [application](const json& params) -> RpcResult { return history(application, params); });
}

}  // namespace vimbrel
