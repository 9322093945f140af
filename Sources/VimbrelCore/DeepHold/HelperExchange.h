// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "DeepHold/DeepHoldProtocol.h"

namespace vimbrel {

/// One request and its response. Absent when there is no helper, it is silent for a second, or its answer
/// cannot be read.
using HelperExchange = std::function<std::optional<HelperResponse>(const HelperRequest&)>;

/// One exchange over a connection of its own to the socket at `socketPath`. Blocks its caller for up to about
/// twice the time-out: once to send, once to receive.
[[nodiscard]] std::optional<HelperResponse> exchangeWithHelper(
    const std::string& socketPath, const HelperRequest& request,
    std::chrono::milliseconds timeout = std::chrono::seconds(1));

}  // namespace vimbrel
