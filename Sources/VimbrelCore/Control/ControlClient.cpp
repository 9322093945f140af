// SPDX-License-Identifier: Apache-2.0
#include "Control/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "Support/Sentence.h"
#include "Support/StrictJson.h"
#include "Support/UnixSocket.h"

namespace vimbrel {

using nlohmann::json;
using Fault = ControlClientError::Fault;
using std::chrono::steady_clock;

namespace {

/// One answer or state; more than a session table of any size needs.
constexpr std::size_t maximumMessageBytes = 64U << 20U;
/// States that arrive while an answer is awaited; only the newest are worth keeping.
constexpr std::size_t keptNotifications = 16;

std::unexpected<ControlClientError> failure(Fault fault, std::string text, int code = 0) {
  return std::unexpected(ControlClientError{fault, code, std::move(text)});
}

std::expected<void, ControlClientError> waitFor(int descriptor, short events,
                                                steady_clock::time_point deadline) {
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - steady_clock::now()).count();
    pollfd poll{descriptor, events, 0};
    const int ready = ::poll(&poll, 1, static_cast<int>(std::clamp<long long>(left, 0, INT_MAX)));
    if (ready > 0) return {};
    if (ready == 0) return failure(Fault::timedOut, sentence("Vimbrel did not answer in time"));
    if (errno != EINTR) return failure(Fault::system, std::string("poll: ") + std::strerror(errno), errno);
  }
}

std::unexpected<ControlClientError> disconnected() {
  return failure(Fault::disconnected, sentence("Vimbrel closed the connection"));
}

}  // namespace

ControlClient::ControlClient(Fd socket, std::string path)
    : socket_(std::move(socket)), path_(std::move(path)) {}
ControlClient::ControlClient(ControlClient&&) noexcept = default;
ControlClient& ControlClient::operator=(ControlClient&&) noexcept = default;
ControlClient::~ControlClient() = default;

std::expected<ControlClient, ControlClientError> ControlClient::connect(const std::string& path,
                                                                        std::chrono::milliseconds timeout) {
  auto socket = connectToUnixSocket(path, static_cast<int>(timeout.count()));
  if (socket) return ControlClient(std::move(*socket), path);
  const auto& error = socket.error();
  if (error.fault == SocketFault::system && (error.code == ENOENT || error.code == ECONNREFUSED)) {
    return failure(Fault::notRunning, sentence("Vimbrel is not running"), error.code);
  }
  if (error.fault == SocketFault::system && error.code == EAGAIN) {
    return failure(Fault::timedOut, sentence("Vimbrel did not accept the connection in time"), error.code);
  }
  return failure(Fault::system, path + ": " + error.text(), error.code);
}

std::expected<void, ControlClientError> ControlClient::sendLine(std::string line, Deadline deadline) {
  line += '\n';
  std::size_t sent = 0;
  while (sent < line.size()) {
    const auto count =
        ::send(socket_.get(), line.data() + sent, line.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      sent += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      if (const auto ready = waitFor(socket_.get(), POLLOUT, deadline); !ready) return ready;
    } else if (errno != EINTR) {
      return disconnected();
    }
  }
  return {};
}

std::expected<std::string, ControlClientError> ControlClient::receiveLine(Deadline deadline) {
  std::size_t searched = 0;
  while (true) {
    if (const auto end = incoming_.find('\n', searched); end != std::string::npos) {
      std::string line = incoming_.substr(0, end);
      incoming_.erase(0, end + 1);
      return line;
    }
    searched = incoming_.size();
    if (searched > maximumMessageBytes)
      return failure(Fault::unreadable, sentence("Vimbrel's answer is too long"));
    char buffer[16384];
    const auto count = ::recv(socket_.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (count > 0) {
      incoming_.append(buffer, static_cast<std::size_t>(count));
    } else if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      if (const auto ready = waitFor(socket_.get(), POLLIN, deadline); !ready) {
        return std::unexpected(ready.error());
      }
    } else if (count == 0 || errno != EINTR) {
      return disconnected();
    }
  }
}

std::expected<json, ControlClientError> ControlClient::receiveMessage(Deadline deadline) {
  auto line = receiveLine(deadline);
  if (!line) return std::unexpected(line.error());
  auto message = parseJson(*line);
  if (!message || !message->is_object()) {
    return failure(Fault::unreadable, sentence("Vimbrel's answer is not a JSON object"));
  }
  return std::move(*message);
}

std::expected<json, ControlClientError> ControlClient::call(std::string_view method, const json& params,
                                                            std::chrono::milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  const auto id = ++lastId_;
  const json request{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}};
  if (const auto sent = sendLine(request.dump(-1, ' ', false, json::error_handler_t::replace), deadline);
      !sent && sent.error().fault != Fault::disconnected) {
    return std::unexpected(sent.error());
  }
  // A server that refuses the connection says so before it closes it: the answer is read in any case.
  while (true) {
    auto message = receiveMessage(deadline);
    if (!message) return message;
    if (message->contains("method")) {
      if (notifications_.size() == keptNotifications) notifications_.pop_front();
      notifications_.push_back(message->value("params", json::object()));
      continue;
    }
    const auto answered = message->find("id");
    const bool isOurs = answered != message->end() && (*answered == id || answered->is_null());
    if (!isOurs) continue;  // The late answer to a call that timed out.
    if (const auto result = message->find("result"); result != message->end()) return std::move(*result);
    const auto given = message->value("error", json::object());
    StrictJsonObject error(given, "error");
    const auto code = error.integer("code");
    const auto text = error.string("message");
    if (error.error())
      return failure(Fault::unreadable, sentence("Vimbrel's answer is unreadable: %1", {*error.error()}));
    return failure(Fault::refused, text, static_cast<int>(code));
  }
}

std::expected<json, ControlClientError> ControlClient::nextNotification(std::chrono::milliseconds timeout) {
  if (!notifications_.empty()) {
    auto params = std::move(notifications_.front());
    notifications_.pop_front();
    return params;
  }
  const auto deadline = steady_clock::now() + timeout;
  while (true) {
    auto message = receiveMessage(deadline);
    if (!message) return message;
    if (message->contains("method")) return message->value("params", json::object());
  }
}

}  // namespace vimbrel
