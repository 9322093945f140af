// SPDX-License-Identifier: Apache-2.0
#include "ListeningSocket.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "Support/AtomicFile.h"
#include "Support/UnixSocket.h"

namespace vimbrel {
namespace {

std::expected<ListeningSocket, std::string> takeHandedOver(int count) {
  constexpr int descriptor = SD_LISTEN_FDS_START;
  if (count != 1 || sd_is_socket(descriptor, AF_UNIX, SOCK_STREAM, 1) <= 0) {
    return std::unexpected("exactly one listening UNIX stream socket must be handed over");
  }
  ListeningSocket listening;
  listening.socket = Fd(descriptor);
  listening.isOurs = false;
  if (::fcntl(descriptor, F_SETFL, O_NONBLOCK) != 0) return std::unexpected("the socket cannot be prepared");
  sockaddr_un address{};
  socklen_t length = sizeof address - 1;  // One byte stays for the end of the longest path.
  if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    listening.path = address.sun_path;
  }
  return listening;
}

}  // namespace

std::expected<ListeningSocket, std::string> openListeningSocket(const HelperOptions& options) {
  ListeningSocket listening;
  if (const int count = sd_listen_fds(1); count > 0) {
    auto handedOver = takeHandedOver(count);
    if (!handedOver) return handedOver;
    listening = std::move(*handedOver);
  } else {
    const auto slash = options.socketPath.rfind('/');
    if (options.user && slash != std::string::npos && slash != 0) {
      const auto made = createDirectories(options.socketPath.substr(0, slash));
      if (!made) return std::unexpected(made.error().text());
    }
    constexpr int backlog = 64;
    auto socket = listenOnUnixSocket(options.socketPath, options.user ? 0600 : 0666, backlog);
    if (!socket)
      return std::unexpected("cannot listen at " + options.socketPath + ": " + socket.error().text());
    listening.socket = std::move(*socket);
    listening.path = options.socketPath;
  }
  struct stat status{};
  listening.group = ::stat(listening.path.c_str(), &status) == 0 ? status.st_gid : 0;
  return listening;
}

}  // namespace vimbrel
