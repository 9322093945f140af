// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace vimbrel {
namespace {

/// Read in one turn of the main queue, so that a peer that never stops sending leaves room for others.
constexpr std::size_t bytesPerTurn = 64U << 10U;
/// Memory that an unusually long line took is given back above this.
constexpr std::size_t keptCapacity = 16U << 10U;

void forget(std::string& buffer) {
  buffer.clear();
  if (buffer.capacity() > keptCapacity) buffer.shrink_to_fit();
}

}  // namespace

ControlConnection::ControlConnection(Fd socket, std::shared_ptr<TaskQueue> mainQueue, const Clock& clock,
                                     std::shared_ptr<const RpcDispatcher> dispatcher,
                                     const ControlLimits& limits)
    : socket_(std::move(socket)),
      mainQueue_(std::move(mainQueue)),
      clock_(clock),
      dispatcher_(std::move(dispatcher)),
      limits_(limits),
      lastProgress_(clock.monotonic()) {}

void ControlConnection::start() { watch(); }

void ControlConnection::watch() {
  if (readable_ || !socket_ || peerFinished_) return;
  readable_ = mainQueue_->watchReadable(socket_.get(), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->readSome();
  });
}

void ControlConnection::readSome() {
  char buffer[8192];
  std::size_t taken = 0;
  while (mayBeginRequest() && taken < bytesPerTurn) {
    const auto count = ::recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    if (count <= 0) {
      if (count < 0) return close();
      // A peer may close its sending side, even without ending its last line, and still wait for the answer.
      peerFinished_ = true;
      readable_.reset();
      if (!incoming_.empty()) incoming_ += '\n';
      return resume();
    }
    taken += static_cast<std::size_t>(count);
    lastProgress_ = clock_.monotonic();
    incoming_.append(buffer, static_cast<std::size_t>(count));
    handleBuffered();
  }
  // Either the peer has an answer to take first, or others have waited long enough. A fresh watch tells of
  // what is still unread.
  readable_.reset();
  if (mayBeginRequest()) watch();
}

void ControlConnection::resume() {
  handleBuffered();
  if (!mayBeginRequest()) return;
  if (!peerFinished_) return watch();
  if (!subscribed_ || peerIsGone()) close();
}

bool ControlConnection::peerIsGone() const {
  pollfd poll{socket_.get(), 0, 0};
  return ::poll(&poll, 1, 0) == 1 && (poll.revents & (POLLHUP | POLLERR)) != 0;
}

void ControlConnection::handleBuffered() {
  isHandling_ = true;
  while (mayBeginRequest()) {
    const auto end = incoming_.find('\n', searched_);
    const auto length = end == std::string::npos ? incoming_.size() : end;
    if (length > limits_.maximumRequestBytes) {
      closeWith(rpcErrorLine(
          {RpcFault::invalidRequest,
           "the request is longer than " + std::to_string(limits_.maximumRequestBytes) + " bytes"}));
      break;
    }
    if (end == std::string::npos) {
      searched_ = incoming_.size();
      break;
    }
    std::string line = incoming_.substr(0, end);
    incoming_.erase(0, end + 1);
    searched_ = 0;
    if (incoming_.empty()) forget(incoming_);
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty()) continue;
    isAnswering_ = true;
    dispatcher_->handle(line, *this, [weak = weak_from_this()](std::string answer) {
      const auto self = weak.lock();
      if (!self) return;
      self->isAnswering_ = false;
      if (!answer.empty()) self->enqueue(std::move(answer));
      if (!self->isHandling_) self->resume();
    });
  }
  isHandling_ = false;
}

void ControlConnection::enqueue(std::string line) {
  outgoing_ += line;
  outgoing_ += '\n';
  flush();
}

void ControlConnection::flush() {
  while (socket_) {
    if (written_ == outgoing_.size()) {
      forget(outgoing_);
      written_ = 0;
      if (!pendingState_) break;
      outgoing_ = *std::exchange(pendingState_, nullptr);
      outgoing_ += '\n';
    }
    const auto count = ::send(socket_.get(), outgoing_.data() + written_, outgoing_.size() - written_,
                              MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      readable_.reset();  // One watch at a time: nothing is read before this is sent.
      if (!writable_) {
        writable_ = mainQueue_->onceWritable(socket_.get(), [weak = weak_from_this()] {
          const auto self = weak.lock();
          if (!self) return;
          self->writable_.reset();
          self->flush();
          self->resume();
        });
      }
      return;
    }
    if (count < 0) return close();
    written_ += static_cast<std::size_t>(count);
    lastProgress_ = clock_.monotonic();
  }
}

void ControlConnection::closeWith(std::string line) {
  if (!socket_) return;
  line += '\n';
  // Whether the peer gets it is the peer's affair: it is being dropped.
  (void)::send(socket_.get(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  close();
}

void ControlConnection::close() {
  if (!socket_) return;
  readable_.reset();
  writable_.reset();
  pendingState_ = nullptr;
  subscribed_ = false;
  socket_.reset();
  kept_.clear();
  if (onClosed) {
    // The owner drops this object, whose members are still in use up the stack.
    mainQueue_->post([self = shared_from_this(), closed = std::exchange(onClosed, nullptr)] { closed(); });
  }
}

void ControlConnection::subscribe() {
  // Sent after the answer to the request, which is given when this returns.
  if (currentStateLine) pendingState_ = currentStateLine();
  subscribed_ = true;
}

void ControlConnection::unsubscribe() {
  subscribed_ = false;
  pendingState_ = nullptr;
}

void ControlConnection::offerState(std::shared_ptr<const std::string> line) {
  if (!subscribed_ || !socket_) return;
  pendingState_ = std::move(line);
  if (outgoing_.empty()) flush();
}

void ControlConnection::checkTimeLimits() {
  if (!socket_) return;
  if (peerFinished_ && peerIsGone()) return close();
  const auto quiet = clock_.monotonic() - lastProgress_;
  if (!outgoing_.empty() ? quiet > limits_.stalledWrite
                         : !subscribed_ && kept_.empty() && !isAnswering_ && quiet > limits_.idle) {
    close();
  }
}

}  // namespace vimbrel
