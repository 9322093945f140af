// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlServer.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "Control/RpcResult.h"
#include "Support/AtomicFile.h"

namespace vimbrel {

using namespace std::chrono_literals;
using nlohmann::json;

namespace {

/// How long to leave waiting connections alone when no descriptor is left to accept them with.
constexpr auto acceptRetryDelay = 1s;

/// The members of two objects, given as text, in one.
std::string joined(const std::string& members, const std::string& others) {
  if (members == "{}") return others;
  if (others == "{}") return members;
  std::string all;
  all.reserve(members.size() + others.size());
  all.append(members, 0, members.size() - 1).append(",").append(others, 1);
  return all;
}

}  // namespace

ControlServer::ControlServer(std::shared_ptr<TaskQueue> mainQueue, const Clock& clock, ControlLimits limits)
    : mainQueue_(std::move(mainQueue)),
      clock_(clock),
      limits_(limits),
      dispatcher_(std::make_shared<RpcDispatcher>()) {
  dispatcher_->addForPeer("subscribe", [](const json&, RpcPeer& peer) -> RpcResult {
    peer.subscribe();
    return json{{"subscribed", true}};
  });
  dispatcher_->addForPeer("unsubscribe", [](const json&, RpcPeer& peer) -> RpcResult {
    peer.unsubscribe();
    return json{{"subscribed", false}};
  });
}

ControlServer::~ControlServer() { stop(); }

void ControlServer::setState(std::function<json()> state, std::vector<std::string> volatileKeys) {
  state_ = std::move(state);
  volatileKeys_ = std::move(volatileKeys);
}

std::expected<void, SocketError> ControlServer::start(const std::string& path) {
  const auto directory = path.substr(0, path.rfind('/'));
  if (const auto made = createDirectories(directory, 0700); !made) {
    return std::unexpected(SocketError{SocketFault::system, "create " + directory, made.error().code});
  }
  // Whoever can write in the directory can put another socket in this one's place.
  if (::chmod(directory.c_str(), 0700) != 0) {
    return std::unexpected(SocketError{SocketFault::system, "protect " + directory, errno});
  }
  auto listener = listenOnUnixSocket(path, 0600, 32);
  if (!listener) return std::unexpected(listener.error());
  listener_ = std::move(*listener);
  path_ = path;
  watchListener();
  return {};
}

void ControlServer::watchListener() {
  acceptable_ = mainQueue_->watchReadable(listener_.get(), [this] { acceptPending(); });
}

void ControlServer::stop() {
  acceptable_.reset();
  retry_.reset();
  publishTimer_.reset();
  limitsTimer_.reset();
  if (listener_) {
    ::unlink(path_.c_str());
    listener_.reset();
  }
  for (const auto& connection : std::exchange(connections_, {})) {
    connection->onClosed = nullptr;
    connection->close();
  }
}

void ControlServer::acceptPending() {
  while (listener_) {
    Fd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket) {
      adopt(std::move(socket));
      continue;
    }
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) {
      logger_.error("Cannot accept control connections, trying again in a second: %s", std::strerror(errno));
      // The socket stays readable while nothing can be accepted: its watch would fire without end.
      acceptable_.reset();
      retry_ = mainQueue_->after(acceptRetryDelay, [this] { watchListener(); });
    }
    return;
  }
}

void ControlServer::adopt(Fd socket) {
  const auto peer = peerCredentials(socket.get());
  if (!peer || (peer->uid != ::geteuid() && peer->uid != 0)) {
    logger_.error("Refused a control connection of user %ld", peer ? static_cast<long>(peer->uid) : -1L);
    return;
  }
  auto connection =
      std::make_shared<ControlConnection>(std::move(socket), mainQueue_, clock_, dispatcher_, limits_);
  if (connections_.size() >= limits_.maximumConnections) {
    connection->closeWith(rpcErrorLine({RpcFault::tooManyConnections, "too many connections"}));
    return;
  }
  connection->currentStateLine = [this] {
    const bool isNews = refreshState();
    auto line = stateLine();
    // The next state is compared with this one, so whoever is subscribed already must have it too.
    if (isNews) offerToSubscribers(line);
    return line;
  };
  connection->onClosed = [this, weak = std::weak_ptr(connection)] {
    std::erase(connections_, weak.lock());
    if (connections_.empty()) limitsTimer_.reset();
  };
  connections_.push_back(connection);
  if (!limitsTimer_) {
    limitsTimer_ =
        mainQueue_->every(limits_.checkInterval, limits_.checkInterval, TimerPrecision::shared, [this] {
          const auto connections = connections_;
          for (const auto& each : connections) each->checkTimeLimits();
        });
  }
  connection->start();
}

bool ControlServer::hasSubscribers() const {
  return std::ranges::any_of(connections_, [](const auto& each) { return each->isSubscribed(); });
}

bool ControlServer::refreshState() {
  auto state = state_ ? state_() : json::object();
  auto aside = json::object();
  for (const auto& key : volatileKeys_) {
    if (const auto found = state.find(key); found != state.end()) {
      aside[key] = std::move(*found);
      state.erase(found);
    }
  }
  volatileMembers_ = rpcText(aside);
  auto settled = rpcText(state);
  const bool isNews = settled != settledMembers_;
  settledMembers_ = std::move(settled);
  return isNews;
}

std::shared_ptr<const std::string> ControlServer::stateLine() const {
  return std::make_shared<const std::string>(
      rpcNotificationLine("state", joined(volatileMembers_, settledMembers_)));
}

void ControlServer::stateDidChange() {
  if (publishTimer_ || !state_ || !hasSubscribers()) return;
  const auto due = lastPublished_ + limits_.stateInterval;
  const auto delay = std::max<std::chrono::nanoseconds>(due - clock_.monotonic(), 0ns);
  publishTimer_ = mainQueue_->after(delay, [this] {
    publishTimer_.reset();
    publish();
  });
}

void ControlServer::publish() {
  if (!hasSubscribers()) return;
  if (!refreshState()) return;
  lastPublished_ = clock_.monotonic();
  offerToSubscribers(stateLine());
}

void ControlServer::offerToSubscribers(const std::shared_ptr<const std::string>& line) {
  const auto connections = connections_;  // A peer that turns out to be gone leaves the list.
  for (const auto& each : connections) each->offerState(line);
}

}  // namespace vimbrel
