// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookIntake.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "Domain/HookEventWire.h"
#include "Support/PrintableText.h"
#include "Support/UnixSocket.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

constexpr auto silenceAllowed = 1s;
constexpr std::size_t maximumWaiting = 256;
// Bounds one turn on the queue; what is left makes the socket readable again.
constexpr int maximumAcceptsPerTurn = 256;
constexpr auto pauseWithoutDescriptors = 100ms;
constexpr auto acceptFailureLogInterval = 60s;
constexpr std::string_view successAnswer = "{\"ok\":true}\n";

Fd openReserve() { return Fd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

/// The answer's text is inserted as it stands, so whatever could end or break the string goes.
std::string failureAnswer(std::string_view problem) {
  std::string answer = "{\"ok\":false,\"error\":\"";
  for (const char c : printableText(problem, 500)) {
    if (c != '"' && c != '\\') answer += c;
  }
  return answer + "\"}\n";
}

void send(int connection, std::string_view answer) {
  // One write whose result is ignored: the client may have gone, and waits for nothing else.
  static_cast<void>(::send(connection, answer.data(), answer.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

bool mayReport(int connection) {
  const auto peer = peerCredentials(connection);
  return peer && (peer->uid == ::geteuid() || peer->uid == 0);
}

}  // namespace

template <typename Step>
auto HookIntake::whileAlive(Step step) {
  return [weak = weak_from_this(), step] {
    const auto self = weak.lock();
    if (self && !self->closed_) ((*self).*step)();
  };
}

HookIntake::HookIntake(Fd listener, Fd poll, std::shared_ptr<TaskQueue> queue, const Clock& clock,
                       HookSenderObserver senderObserver)
    : queue_(std::move(queue)),
      clock_(clock),
      senderObserver_(std::move(senderObserver)),
      buffer_(std::make_unique_for_overwrite<char[]>(maximumHookEventBytes)),
      listener_(std::move(listener)),
      poll_(std::move(poll)),
      reserve_(openReserve()) {}

std::expected<std::shared_ptr<HookIntake>, int> HookIntake::open(Fd listener,
                                                                 std::shared_ptr<TaskQueue> queue,
                                                                 const Clock& clock,
                                                                 HookSenderObserver senderObserver) {
  Fd poll(::epoll_create1(EPOLL_CLOEXEC));
  if (!poll) return std::unexpected(errno);
  return std::shared_ptr<HookIntake>(new HookIntake(std::move(listener), std::move(poll), std::move(queue),
                                                    clock, std::move(senderObserver)));
}

void HookIntake::setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) {
  const std::lock_guard guard(delegateLock_);
  delegate_ = std::move(delegate);
}

void HookIntake::close() {
  closed_ = true;
  const std::lock_guard delivered(deliveryLock_);
}

void HookIntake::begin() { queue_->post(whileAlive(&HookIntake::watchListener)); }

void HookIntake::watchListener() {
  if (!pollWatch_) pollWatch_ = queue_->watchReadable(poll_.get(), whileAlive(&HookIntake::serveWaiting));
  listenerWatch_ = queue_->watchReadable(listener_.get(), whileAlive(&HookIntake::acceptReady));
}

void HookIntake::acceptReady() {
  for (int i = 0; i < maximumAcceptsPerTurn && !closed_; ++i) {
    Fd connection(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (connection) {
      admit(std::move(connection));
    } else if (!recoverFromAcceptError(errno)) {
      break;
    }
  }
  if (!reserve_) reserve_ = openReserve();
}

/// True when accepting can go on at once.
bool HookIntake::recoverFromAcceptError(int error) {
  if (error == EAGAIN) return false;
  if (error == EINTR || error == ECONNABORTED) return true;
  if (error == EMFILE || error == ENFILE) {
    // The kernel looks for a free descriptor first, also when nobody is waiting to be accepted.
    pollfd pending{listener_.get(), POLLIN, 0};
    if (::poll(&pending, 1, 0) == 0) return false;
    if (!waiting_.empty()) {
      waiting_.erase(waiting_.begin());
      return true;
    }
    if (reserve_) {
      reserve_.reset();
      return true;
    }
  }
  const auto now = clock_.monotonic();
  if (!acceptFailureLoggedAt_ || now - *acceptFailureLoggedAt_ >= acceptFailureLogInterval) {
    acceptFailureLoggedAt_ = now;
    logger_.error("Cannot accept hook connections, trying again in 0.1 s: %s", std::strerror(error));
  }
  pauseAccepting();
  return false;
}

/// The socket stays readable while it cannot be accepted from, so its watch would fire without end.
void HookIntake::pauseAccepting() {
  listenerWatch_.reset();
  resume_ = queue_->after(pauseWithoutDescriptors, whileAlive(&HookIntake::watchListener));
}

void HookIntake::admit(Fd connection) {
  if (!mayReport(connection.get())) return;
  // A sender that made this connection may have written to an earlier one before: that event comes first.
  if (!waiting_.empty()) serveWaiting();
  if (serve(connection.get()) == Outcome::silent) setAside(std::move(connection));
}

HookIntake::Outcome HookIntake::serve(int connection) {
  const auto count = ::recv(connection, buffer_.get(), maximumHookEventBytes, MSG_DONTWAIT);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return Outcome::silent;
  if (count > 0) handleDocument(connection, {buffer_.get(), static_cast<std::size_t>(count)});
  return Outcome::finished;
}

void HookIntake::handleDocument(int connection, std::string_view document) {
  const auto event = HookEvent::parse(document, clock_.now());
  if (!event) {
    logger_.error("Failed to parse hook event (%ld bytes): %s", static_cast<long>(document.size()),
                  printableText(event.error()).c_str());
    send(connection, failureAnswer(event.error()));
    return;
  }
  if (logger_.enabled(LogLevel::debug)) {
    logger_.debug("Received event: agent=%s state=%s session=%s", rawValue(event->agent).data(),
                  rawValue(event->state).data(), printableText(event->sessionId).c_str());
  }
  // The answer ends the sender, and with it the way to its ancestors.
  if (senderObserver_) {
    if (const auto peer = peerCredentials(connection)) senderObserver_(*event, peer->pid);
  }
  const std::lock_guard delivering(deliveryLock_);
  if (closed_) return;
  send(connection, successAnswer);
  std::shared_ptr<HookEventReceiverDelegate> delegate;
  {
    const std::lock_guard guard(delegateLock_);
    delegate = delegate_.lock();
  }
  if (delegate) delegate->didReceiveHookEvent(*event);
}

void HookIntake::setAside(Fd connection) {
  if (waiting_.size() >= maximumWaiting) waiting_.erase(waiting_.begin());
  const auto id = nextWaiting_++;
  epoll_event interest{};
  interest.events = EPOLLIN;
  interest.data.u64 = id;
  if (::epoll_ctl(poll_.get(), EPOLL_CTL_ADD, connection.get(), &interest) != 0)
    return;  // Out of memory: dropped.
  waiting_.emplace(id, Waiting{std::move(connection), clock_.monotonic() + silenceAllowed});
  if (!expiry_) armExpiry();
}

void HookIntake::serveWaiting() {
  epoll_event ready[64];
  for (bool progress = true; progress && !closed_;) {
    progress = false;
    const int count = ::epoll_wait(poll_.get(), ready, static_cast<int>(std::size(ready)), 0);
    for (int i = 0; i < count && !closed_; ++i) {
      const auto found = waiting_.find(ready[i].data.u64);
      if (found == waiting_.end() || serve(found->second.connection.get()) == Outcome::silent) continue;
      waiting_.erase(found);
      progress = true;
    }
  }
}

/// One timer for all, set for the oldest and left to run when that one is done: hooks come in bursts, and
/// setting it anew for every connection would wake the timers' thread each time.
void HookIntake::armExpiry() {
  expiry_ =
      queue_->after(waiting_.begin()->second.deadline - clock_.monotonic(), whileAlive(&HookIntake::expire));
}

void HookIntake::expire() {
  const auto now = clock_.monotonic();
  while (!waiting_.empty() && waiting_.begin()->second.deadline <= now) waiting_.erase(waiting_.begin());
  expiry_.reset();
  if (!waiting_.empty()) armExpiry();
}

}  // namespace vimbrel
