// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>

#include "DeepHold/DeepHoldProtocol.h"
#include "Platform/PeerAuthority.h"
#include "Support/Fd.h"
#include "Support/TaskQueue.h"
#include "Support/UnixSocket.h"

namespace vimbrel {

/// Serves the helper's socket: one request and one response a connection. A connection gets two seconds and
/// 8 KiB; one user gets 16 connections at a time and all get 128, beyond which the oldest goes. Nothing that
/// a peer does, or leaves undone, holds up another. Queue: the given one.
class HelperServer {
 public:
  /// Answers a request whose peer is allowed to ask.
  using Handler = std::function<HelperResponse(const HelperRequest&, const PeerCredentials&)>;

  /// `listening` must be non-blocking.
  HelperServer(Fd listening, std::shared_ptr<TaskQueue> queue, std::shared_ptr<PeerAuthority> authority,
               Handler handler);
  ~HelperServer();
  HelperServer(const HelperServer&) = delete;
  HelperServer& operator=(const HelperServer&) = delete;

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace vimbrel
