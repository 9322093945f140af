// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Platform/PeerAuthority.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// Who may ask the system's helper: root, and whom polkit allows the given action without asking anybody. On
/// a machine without polkit: root, and the members of the group that owns the socket.
///
/// An answer of yes is kept for 10 seconds for the same process. Polkit gets 800 ms; at most 8 questions of
/// one user and 32 in all wait for it, further ones are refused. Queue: the given one.
class SystemPeerAuthority final : public PeerAuthority {
 public:
  SystemPeerAuthority(std::shared_ptr<TaskQueue> queue, std::string action, gid_t socketGroup);
  ~SystemPeerAuthority() override;
  void check(const PeerCredentials& peer, int connection, Verdict verdict) override;

  struct State;

 private:
  std::shared_ptr<State> state_;
};

/// Who may ask a user's own helper: that user, and root.
class OwnerAuthority final : public PeerAuthority {
 public:
  void check(const PeerCredentials& peer, int connection, Verdict verdict) override;
};

}  // namespace vimbrel
