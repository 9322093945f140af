// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/HelperExchange.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "Support/UnixSocket.h"

namespace vimbrel {

std::optional<HelperResponse> exchangeWithHelper(const std::string& socketPath, const HelperRequest& request,
                                                 std::chrono::milliseconds timeout) {
  const auto text = encode(request);
  const auto socket = connectToUnixSocket(socketPath, static_cast<int>(timeout.count()));
  if (!socket) return std::nullopt;
  // A helper that goes away in the middle must not end this process by a signal.
  const auto sent = ::send(socket->get(), text.data(), text.size(), MSG_NOSIGNAL);
  if (sent != static_cast<ssize_t>(text.size())) return std::nullopt;
  std::array<char, maximumHelperMessageBytes> answer;
  ssize_t length = 0;
  do {
    length = ::recv(socket->get(), answer.data(), answer.size(), 0);
  } while (length < 0 && errno == EINTR);
  if (length <= 0) return std::nullopt;
  auto response = decodeHelperResponse({answer.data(), static_cast<std::size_t>(length)});
  if (!response) return std::nullopt;
  return std::move(*response);
}

}  // namespace vimbrel
