// SPDX-License-Identifier: Apache-2.0
#include "Support/UnixSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

std::string parentOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::unexpected<SocketError> failure(const char* operation, int code) {
  return std::unexpected(SocketError{SocketFault::system, operation, code});
}

}  // namespace

std::string SocketError::text() const {
  switch (fault) {
    case SocketFault::pathTooLong:
      return sentence("the socket's path is longer than 102 bytes");
    case SocketFault::alreadyServed:
      return sentence("another process serves this socket");
    case SocketFault::system:
      break;
  }
  return operation + ": " + std::strerror(code);
}

bool isUnixSocketServed(const std::string& path) {
  if (path.size() > maximumSocketPathLength) return false;
  const Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return false;
  const auto address = addressOf(path);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return true;
  return errno == EAGAIN;  // Its backlog is full: served, and busy.
}

std::expected<Fd, SocketError> listenOnUnixSocket(const std::string& path, mode_t mode, int backlog) {
  if (path.size() > maximumSocketPathLength)
    return std::unexpected(SocketError{SocketFault::pathTooLong, "bind", 0});
  // Two processes that start together must not take each other's socket, bound and not yet listening, for a
  // stale one. The lock goes with the descriptor.
  const Fd directory(::open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::flock(directory.get(), LOCK_EX);
  if (isUnixSocketServed(path)) return std::unexpected(SocketError{SocketFault::alreadyServed, "bind", 0});
  ::unlink(path.c_str());
  Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return failure("create", errno);
  const auto address = addressOf(path);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return failure("bind", errno);
  }
  // Nobody can connect before listen, so the permissions are in force from the first connection on.
  ::chmod(path.c_str(), mode);
  if (::listen(socket.get(), backlog) != 0) {
    const int code = errno;
    ::unlink(path.c_str());
    return failure("listen", code);
  }
  return socket;
}

std::expected<Fd, SocketError> connectToUnixSocket(const std::string& path, int timeoutMilliseconds) {
  if (path.size() > maximumSocketPathLength) {
    return std::unexpected(SocketError{SocketFault::pathTooLong, "connect", 0});
  }
  Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return failure("create", errno);
  const timeval timeout{timeoutMilliseconds / 1000, (timeoutMilliseconds % 1000) * 1000};
  ::setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  ::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const auto address = addressOf(path);
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return failure("connect", errno);
  }
  return socket;
}

std::optional<PeerCredentials> peerCredentials(int descriptor) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  return PeerCredentials{credentials.pid, credentials.uid, credentials.gid};
}

}  // namespace vimbrel
