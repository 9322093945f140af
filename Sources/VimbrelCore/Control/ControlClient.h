// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <expected>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "Support/Fd.h"

namespace vimbrel {

/// Why the application did not answer, or what it answered; `text` is a sentence for people.
struct ControlClientError {
  enum class Fault {
    notRunning,    ///< nobody serves the socket
    disconnected,  ///< the application went away
    timedOut,      ///< it is there but did not answer in time
    unreadable,    ///< what came is no answer of this protocol
    refused,       ///< it answered with an error, whose code is `code`
    system,        ///< the connection could not be made for another reason
  };
  Fault fault = Fault::system;
  int code = 0;
  std::string text;
};

/// A connection to the running application that blocks its caller, with a bound on every wait. One thread.
class ControlClient {
 public:
  [[nodiscard]] static std::expected<ControlClient, ControlClientError> connect(
      const std::string& path, std::chrono::milliseconds timeout = std::chrono::seconds(5));
  ControlClient(ControlClient&&) noexcept;
  ControlClient& operator=(ControlClient&&) noexcept;
  ~ControlClient();

  /// Calls one method and waits for its result. Notifications that come meanwhile are kept for
  /// `nextNotification`.
  [[nodiscard]] std::expected<nlohmann::json, ControlClientError> call(
      std::string_view method, const nlohmann::json& params,
      std::chrono::milliseconds timeout = std::chrono::seconds(10));

  /// The "params" of the next notification, waiting for it at most so long (`timedOut`). After `subscribe` it
  /// is a state.
  [[nodiscard]] std::expected<nlohmann::json, ControlClientError> nextNotification(
      std::chrono::milliseconds timeout);

  /// For waiting together with other descriptors. When it is readable, call `nextNotification` with no
  /// waiting time until it times out.
  [[nodiscard]] int descriptor() const { return socket_.get(); }

 private:
  using Deadline = std::chrono::steady_clock::time_point;

  ControlClient(Fd socket, std::string path);
  std::expected<void, ControlClientError> sendLine(std::string line, Deadline deadline);
  std::expected<std::string, ControlClientError> receiveLine(Deadline deadline);
  std::expected<nlohmann::json, ControlClientError> receiveMessage(Deadline deadline);

  Fd socket_;
  std::string path_;
  std::int64_t lastId_ = 0;
  std::string incoming_;
  std::deque<nlohmann::json> notifications_;
};

}  // namespace vimbrel
