// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "Support/UnixSocket.h"

namespace vimbrel {

/// Decides which local peers a privileged service obeys. Queue: one, its owner's.
class PeerAuthority {
 public:
  /// Gets why the peer is refused, as a sentence for the peer's user; nothing when it is allowed.
  using Verdict = std::move_only_function<void(std::optional<std::string> refusal)>;

  virtual ~PeerAuthority() = default;
  /// Calls `verdict` once: at once, or within a second. `connection` is the peer's socket, valid during the
  /// call.
  virtual void check(const PeerCredentials& peer, int connection, Verdict verdict) = 0;
};

}  // namespace vimbrel
