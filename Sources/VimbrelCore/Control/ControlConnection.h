// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "Control/RpcDispatcher.h"
#include "Support/Clock.h"
#include "Support/Fd.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

/// What one peer of the control socket may use up.
struct ControlLimits {
  std::size_t maximumConnections = 64;
  std::size_t maximumRequestBytes = 1U << 20U;  ///< one line
  /// A peer that does not take its answer for this long is dropped.
  std::chrono::seconds stalledWrite{30};
  /// So is one that is not subscribed, keeps nothing and sends nothing for this long.
  std::chrono::seconds idle{300};
  /// How often these two are looked at while there are connections.
  std::chrono::milliseconds checkInterval{5000};
  /// Subscribers get at most one state in this time.
  std::chrono::milliseconds stateInterval{100};
};

/// One peer of the control socket: lines in, lines out, never waiting for the peer. A request is begun only
/// when the answer to the one before it has left, so what a peer leaves unread is one answer and one state
/// at most; a subscriber that falls behind gets the latest state when it reads again. Main queue.
class ControlConnection final : public RpcPeer, public std::enable_shared_from_this<ControlConnection> {
 public:
  ControlConnection(Fd socket, std::shared_ptr<TaskQueue> mainQueue, const Clock& clock,
                    std::shared_ptr<const RpcDispatcher> dispatcher, const ControlLimits& limits);

  /// Called once, when the peer is gone or was dropped; the owner then forgets the connection.
  std::function<void()> onClosed;
  /// Gives the state's line, for a new subscriber.
  std::function<std::shared_ptr<const std::string>()> currentStateLine;

  void start();
  /// Sends one last line, if the peer takes it at once, and closes.
  void closeWith(std::string line);
  void close();

  void subscribe() override;
  void unsubscribe() override;
  [[nodiscard]] bool isSubscribed() const { return subscribed_; }
  /// Queues the state for a subscriber, in place of one that has not been sent.
  void offerState(std::shared_ptr<const std::string> line);

  /// Drops a peer that has used up its time.
  void checkTimeLimits();

 private:
  void watch();
  void readSome();
  void handleBuffered();
  /// Goes on with what the peer has sent, after something that stood in its way is done.
  void resume();
  /// True when the peer has closed both directions.
  [[nodiscard]] bool peerIsGone() const;
  void enqueue(std::string line);
  void flush();
  [[nodiscard]] bool mayBeginRequest() const { return socket_ && !isAnswering_ && outgoing_.empty(); }

  Fd socket_;
  const std::shared_ptr<TaskQueue> mainQueue_;
  const Clock& clock_;
  const std::shared_ptr<const RpcDispatcher> dispatcher_;
  const ControlLimits limits_;
  Token readable_;
  Token writable_;
  std::string incoming_;
  std::size_t searched_ = 0;  ///< bytes at the front of `incoming_` that hold no end of line
  std::string outgoing_;
  std::size_t written_ = 0;
  std::shared_ptr<const std::string> pendingState_;
  bool subscribed_ = false;
  bool isAnswering_ = false;
  bool isHandling_ = false;
  bool peerFinished_ = false;
  std::chrono::nanoseconds lastProgress_;
};

}  // namespace vimbrel
