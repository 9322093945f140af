// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/VimbrelSocketClient.h"

#include "AgentMonitoring/Hooks/HookSocketExchange.h"

namespace vimbrel {

bool VimbrelSocketClient::send(std::string_view rawData, std::int64_t timeoutMs) const {
  return exchangeWithHookSocket(socketPath, rawData.data(), rawData.size(), timeoutMs);
}

bool VimbrelSocketClient::send(const HookEvent& event, std::int64_t timeoutMs) const {
  return send(event.toJSONData(), timeoutMs);
}

}  // namespace vimbrel
