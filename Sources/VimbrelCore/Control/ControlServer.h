// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Control/ControlConnection.h"
#include "Control/RpcDispatcher.h"
#include "Support/Clock.h"
#include "Support/Fd.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"
#include "Support/UnixSocket.h"

namespace vimbrel {

/// Serves the control socket: every surface of the application is one of its peers
/// (docs/control-protocol.md). Connections of other users than this process's own and root are closed at
/// once. Main queue.
class ControlServer {
 public:
  ControlServer(std::shared_ptr<TaskQueue> mainQueue, const Clock& clock, ControlLimits limits = {});
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  /// Where methods are added, before or after `start`. "subscribe" and "unsubscribe" are there already.
  [[nodiscard]] RpcDispatcher& methods() { return *dispatcher_; }

  /// What subscribers are sent, asked for only while somebody is subscribed. `volatileKeys` are those members
  /// that change by the mere passing of time: they alone are no reason to send the state again.
  void setState(std::function<nlohmann::json()> state, std::vector<std::string> volatileKeys);
  /// Says that the state may have changed; cheap to call often.
  void stateDidChange();

  /// Listens at `path` (mode 0600, in a directory made with mode 0700 if it is missing).
  [[nodiscard]] std::expected<void, SocketError> start(const std::string& path);
  /// Closes every connection and removes the socket's file.
  void stop();

  [[nodiscard]] std::size_t connectionCount() const { return connections_.size(); }

 private:
  void watchListener();
  void acceptPending();
  void adopt(Fd socket);
  void publish();
  void offerToSubscribers(const std::shared_ptr<const std::string>& line);
  [[nodiscard]] bool hasSubscribers() const;
  /// Asks for the state; true when it is another than before.
  [[nodiscard]] bool refreshState();
  /// The notification that tells the state as it was asked for last.
  [[nodiscard]] std::shared_ptr<const std::string> stateLine() const;

  const std::shared_ptr<TaskQueue> mainQueue_;
  const Clock& clock_;
  const ControlLimits limits_;
  const Logger logger_{"control"};
  const std::shared_ptr<RpcDispatcher> dispatcher_;
  std::function<nlohmann::json()> state_;
  std::vector<std::string> volatileKeys_;
  std::string path_;
  Fd listener_;
  Token acceptable_;
  Token retry_;
  Token publishTimer_;
  Token limitsTimer_;
  // The state as text: with thousands of sessions it has megabytes, so that it is written once and not
  // copied.
  std::string settledMembers_ = "{}";
  std::string volatileMembers_ = "{}";
  std::chrono::nanoseconds lastPublished_{};
  std::vector<std::shared_ptr<ControlConnection>> connections_;
};

}  // namespace vimbrel
