// SPDX-License-Identifier: Apache-2.0
#include "Commands/FirstEvent.h"

#include <chrono>

#include "Control/ControlSocketPath.h"
#include "Domain/AgentState.h"
#include "Say.h"

namespace vimbrel {

using nlohmann::json;

FirstEvent::FirstEvent(AgentType agent)
    : agent_(agent), client_(ControlClient::connect(controlSocketPath())) {
  if (!client_) return;
  const auto state = client_->call("status", json::object());
  if (!state) {
    client_ = std::unexpected(state.error());
    return;
  }
  before_ = countIn(*state);
  if (const auto answer = client_->call("subscribe", json::object()); !answer) {
    client_ = std::unexpected(answer.error());
  }
}

std::optional<ControlClientError> FirstEvent::problem() const {
  return client_ ? std::nullopt : std::optional(client_.error());
}

std::expected<json, ControlClientError> FirstEvent::wait() {
  for (;;) {
    auto state = client_->nextNotification(std::chrono::minutes(10));
    if (!state) {
      if (state.error().fault == ControlClientError::Fault::timedOut) continue;
      return state;
    }
    if (countIn(*state) > before_) return state;
  }
}

std::expected<json, ControlClientError> FirstEvent::arrived() {
  for (;;) {
    auto state = client_->nextNotification(std::chrono::milliseconds(0));
    if (!state || countIn(*state) > before_) return state;
  }
}

std::string FirstEvent::sentence(const json& state) const {
  const json::json_pointer last("/lastEvents/" + std::string(rawValue(agent_)) + "/state");
  const auto reported = agentStateFromRawValue(state.contains(last) ? state[last].get<std::string>() : "");
  return say("%1 reports %2",
             {retell(displayName(agent_)), reported ? retell(displayLabel(*reported)) : say("something")});
}

std::uint64_t FirstEvent::countIn(const json& state) const {
  const json::json_pointer count("/lastEvents/" + std::string(rawValue(agent_)) + "/count");
  return state.contains(count) ? state[count].get<std::uint64_t>() : 0;
}

}  // namespace vimbrel
