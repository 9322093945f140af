// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "Control/ControlClient.h"
#include "Domain/AgentType.h"

namespace vimbrel {

/// Hears from the running application of the first event that one agent reports after this was made: what was
/// heard before the user was told what to do is no proof of it. One thread.
class FirstEvent {
 public:
  explicit FirstEvent(AgentType agent);

  /// Why nothing can be heard; absent when all is well.
  [[nodiscard]] std::optional<ControlClientError> problem() const;
  /// Waits for it, however long it takes. The result is the published state in which it was heard.
  [[nodiscard]] std::expected<nlohmann::json, ControlClientError> wait();
  /// For waiting together with other descriptors: when it is readable, ask `arrived`.
  [[nodiscard]] int descriptor() const { return client_->descriptor(); }
  /// The same as `wait` without waiting: `timedOut` when it was something else.
  [[nodiscard]] std::expected<nlohmann::json, ControlClientError> arrived();

  /// "Claude Code reports Working", of a state that `wait` or `arrived` gave.
  [[nodiscard]] std::string sentence(const nlohmann::json& state) const;

 private:
  [[nodiscard]] std::uint64_t countIn(const nlohmann::json& state) const;

  const AgentType agent_;
  std::expected<ControlClient, ControlClientError> client_;
  std::uint64_t before_ = 0;
};

}  // namespace vimbrel
