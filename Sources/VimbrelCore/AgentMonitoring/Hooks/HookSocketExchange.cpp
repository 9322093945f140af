// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookSocketExchange.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstring>

#include "Support/Fd.h"
#include "Support/SocketPathLimit.h"

namespace vimbrel {

bool exchangeWithHookSocket(std::string_view socketPath, const void* bytes, std::size_t count,
                            std::int64_t timeoutMs) noexcept {
  sockaddr_un address{};
  // An empty path, or one that begins with NUL, would name a socket of the abstract namespace, which any user
  // may own.
  if (socketPath.empty() || socketPath.size() > maximumSocketPathLength ||
      socketPath.find('\0') != std::string_view::npos) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, socketPath.data(), socketPath.size());

  const Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return false;
  const timeval timeout{.tv_sec = timeoutMs / 1000, .tv_usec = (timeoutMs % 1000) * 1000};
  // On this system the send timeout bounds the connect too, when the receiver's backlog is full.
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0 ||
      ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
    return false;
  }
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return false;
  // The flag stands for the option of other systems: a peer that has gone is an error, not a signal.
  const auto written = ::send(socket.get(), bytes, count, MSG_NOSIGNAL);
  if (written < 0 || static_cast<std::size_t>(written) != count) return false;
  char answer[64];
  // Closing before the receiver has answered would cost it an error; what it says changes nothing here.
  static_cast<void>(::recv(socket.get(), answer, sizeof answer, 0));
  return true;
}

}  // namespace vimbrel
