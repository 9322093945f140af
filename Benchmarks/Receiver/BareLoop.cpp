// SPDX-License-Identifier: Apache-2.0
#include "BareLoop.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace vimbrel::bench {

void runBareLoop(const std::string& path, int backlog, const std::function<void()>& ready) {
  const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener, backlog) != 0) {
    std::exit(1);
  }
  ready();
  static char buffer[65536];
  constexpr char answer[] = "{\"ok\":true}\n";
  for (;;) {
    const int connection = ::accept(listener, nullptr, nullptr);
    if (connection < 0) continue;
    if (::read(connection, buffer, sizeof buffer) > 0 &&
        ::write(connection, answer, sizeof answer - 1) != sizeof answer - 1) {
      std::exit(1);
    }
    ::close(connection);
  }
}

}  // namespace vimbrel::bench
