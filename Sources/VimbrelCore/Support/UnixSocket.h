// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <expected>
#include <optional>
#include <string>

#include "Support/Fd.h"
#include "Support/SocketPathLimit.h"

namespace vimbrel {

/// Who is at the other end of a connection, as the kernel recorded it at connect time.
struct PeerCredentials {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

enum class SocketFault { pathTooLong, alreadyServed, system };
struct SocketError {
  SocketFault fault = SocketFault::system;
  std::string operation;  // "create", "bind", "listen", "connect"
  int code = 0;           // errno, for `system`
  [[nodiscard]] std::string text() const;
};

/// A non-blocking, close-on-exec stream socket bound to `path` with the given mode and listening. A socket
/// file that nobody serves (left by a crash) is replaced; one that somebody serves gives `alreadyServed`. Of
/// several processes that start together one gets the socket; meanwhile "<path>.lock" keeps them apart.
[[nodiscard]] std::expected<Fd, SocketError> listenOnUnixSocket(const std::string& path, mode_t mode,
                                                                int backlog);

/// A blocking, close-on-exec connection with both time-outs set.
[[nodiscard]] std::expected<Fd, SocketError> connectToUnixSocket(const std::string& path,
                                                                 int timeoutMilliseconds);

/// True when somebody accepts connections at `path` now.
[[nodiscard]] bool isUnixSocketServed(const std::string& path);

[[nodiscard]] std::optional<PeerCredentials> peerCredentials(int descriptor);

}  // namespace vimbrel
