// SPDX-License-Identifier: Apache-2.0
#include "HelperServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <list>
#include <string>
#include <utility>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "MessageEnd.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

constexpr auto connectionTime = 2s;
constexpr std::size_t maximumConnections = 128;
constexpr std::ptrdiff_t maximumConnectionsOfOneUser = 16;
constexpr int acceptsInOneTurn = 64;
constexpr auto acceptRetryDelay = 1s;

struct Connection {
  Fd socket;
  PeerCredentials peer;
  std::string received;
  MessageEnd end;
  bool asked = false;  // The request is complete; its answer is being made.
  Token deadline;
  Token readable;  // Declared after the socket that it watches.
};

}  // namespace

struct HelperServer::State : std::enable_shared_from_this<State> {
  using Connections = std::list<std::shared_ptr<Connection>>;

  std::shared_ptr<TaskQueue> queue;
  std::shared_ptr<PeerAuthority> authority;
  Handler handler;
  Connections connections;  // the oldest first
  Fd listening;
  Token acceptable;
  Token retry;

  void watchListener() {
    acceptable = queue->watchReadable(listening.get(), [this] { acceptAll(); });
  }

  void close(const std::shared_ptr<Connection>& connection) {
    connection->readable.reset();
    connection->deadline.reset();
    connection->socket.reset();
    connections.remove(connection);
  }

  void acceptAll() {
    for (int i = 0; i < acceptsInOneTurn; ++i) {
      Fd socket(::accept4(listening.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (socket) {
        begin(std::move(socket));
      } else if ((errno == EMFILE || errno == ENFILE) && !connections.empty()) {
        close(connections.front());
      } else if (errno == EAGAIN) {
        return;
      } else if (errno != EINTR && errno != ECONNABORTED) {
        // The socket stays readable while nothing can be accepted: its watch would fire without end.
        acceptable.reset();
        retry = queue->after(acceptRetryDelay, [this] { watchListener(); });
        return;
      }
    }
    // There may be more; the connections that were accepted come first.
    queue->post([weak = weak_from_this()] {
      if (const auto self = weak.lock()) self->acceptAll();
    });
  }

  void begin(Fd socket) {
    const auto peer = peerCredentials(socket.get());
    if (!peer) return;
    makeRoomFor(*peer);
    auto connection = std::make_shared<Connection>();
    connection->socket = std::move(socket);
    connection->peer = *peer;
    connections.push_back(connection);
    const auto later = [weak = weak_from_this(), of = std::weak_ptr(connection)](auto action) {
      return [weak, of, action] {
        const auto self = weak.lock();
        const auto alive = of.lock();
        if (self && alive && alive->socket) ((*self).*action)(alive);
      };
    };
    connection->deadline = queue->after(connectionTime, later(&State::close));
    connection->readable = queue->watchReadable(connection->socket.get(), later(&State::read));
  }

  void makeRoomFor(const PeerCredentials& peer) {
    const auto isOfThisUser = [&](const auto& other) { return other->peer.uid == peer.uid; };
    if (std::count_if(connections.begin(), connections.end(), isOfThisUser) >= maximumConnectionsOfOneUser) {
      close(*std::find_if(connections.begin(), connections.end(), isOfThisUser));
    }
    if (connections.size() >= maximumConnections) close(connections.front());
  }

  void read(const std::shared_ptr<Connection>& connection) {
    std::array<char, 4096> bytes;
    while (connection->socket && !connection->asked) {
      const auto count = ::recv(connection->socket.get(), bytes.data(), bytes.size(), 0);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0 && errno == EAGAIN) return;
      if (count <= 0) return close(connection);
      const std::string_view piece(bytes.data(), static_cast<std::size_t>(count));
      connection->received += piece;
      if (connection->received.size() > maximumHelperMessageBytes) {
        return refuse(connection, "the request is longer than 8192 bytes");
      }
      switch (connection->end.feed(piece)) {
        case MessageEnd::Verdict::incomplete:
          break;
        case MessageEnd::Verdict::malformed:
          return refuse(connection, "the request is not a JSON object");
        case MessageEnd::Verdict::complete:
          ask(connection);
      }
    }
  }

  void ask(const std::shared_ptr<Connection>& connection) {
    connection->asked = true;
    // The peer may have sent its end or more bytes: its socket would stay readable for as long as the
    // authority takes, and the watch would fire without end. Whether the peer is still there shows when it is
    // answered.
    connection->readable.reset();
    auto request = decodeHelperRequest(connection->received);
    if (!request) return refuse(connection, request.error().text);
    authority->check(connection->peer, connection->socket.get(),
                     [weak = weak_from_this(), of = std::weak_ptr(connection),
                      asked = std::move(*request)](std::optional<std::string> refusal) {
                       const auto self = weak.lock();
                       const auto alive = of.lock();
                       if (!self || !alive || !alive->socket) return;
                       if (refusal) return self->refuse(alive, std::move(*refusal));
                       self->finish(alive, self->handler(asked, alive->peer));
                     });
  }

  void refuse(const std::shared_ptr<Connection>& connection, std::string why) {
    finish(connection, HelperResponse{false, std::nullopt, std::move(why)});
  }

  void finish(const std::shared_ptr<Connection>& connection, const HelperResponse& response) {
    const auto text = encode(response);
    // It fits the empty buffer of a fresh connection; a peer that is gone needs no answer.
    (void)::send(connection->socket.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    close(connection);
  }
};

HelperServer::HelperServer(Fd listening, std::shared_ptr<TaskQueue> queue,
                           std::shared_ptr<PeerAuthority> authority, Handler handler)
    : state_(std::make_shared<State>()) {
  state_->queue = std::move(queue);
  state_->authority = std::move(authority);
  state_->handler = std::move(handler);
  state_->listening = std::move(listening);
  state_->watchListener();
}

HelperServer::~HelperServer() {
  state_->acceptable.reset();
  state_->retry.reset();
  while (!state_->connections.empty()) state_->close(state_->connections.front());
}

}  // namespace vimbrel
