// SPDX-License-Identifier: Apache-2.0
#include "Support/UnixSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

/// Lets one process at a time make the socket: two that start together must not take each other's, bound and
/// not yet listening, for a stale one. The lock is a file of our own, which nobody else can open, beside the
/// socket: the directory may be one that everybody can open and lock, such as /run. Where there can be no
/// such file (a full disk), the socket is made without.
class SocketLock {
 public:
  explicit SocketLock(const std::string& socketPath) : path_(socketPath + ".lock") {
    // Each attempt that finds the file gone means that another process is done with its socket.
    for (int attempt = 0; attempt < 1000; ++attempt) {
      Fd file(::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
      struct stat ours{};
      struct stat there{};
      // What somebody else put there could be locked by them for ever.
      if (!file || ::fstat(file.get(), &ours) != 0 || ours.st_uid != ::geteuid()) return;
      while (::flock(file.get(), LOCK_EX) != 0) {
        if (errno != EINTR) return;
      }
      if (::lstat(path_.c_str(), &there) == 0 && there.st_ino == ours.st_ino && there.st_dev == ours.st_dev) {
        file_ = std::move(file);
        return;
      }
    }
  }
  ~SocketLock() {
    if (file_) ::unlink(path_.c_str());
  }
  SocketLock(const SocketLock&) = delete;
  SocketLock& operator=(const SocketLock&) = delete;

 private:
  const std::string path_;
  Fd file_;
};

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
  const SocketLock lock(path);
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
