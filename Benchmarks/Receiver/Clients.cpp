// SPDX-License-Identifier: Apache-2.0
#include "Clients.h"

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <thread>

#include "Support/UnixSocket.h"

namespace vimbrel::bench {
namespace {

void sendOne(const std::string& path, const std::string& document) {
  const auto connection = connectToUnixSocket(path, 5000);
  char answer[64];
  if (connection && ::send(connection->get(), document.data(), document.size(), MSG_NOSIGNAL) ==
                        static_cast<ssize_t>(document.size())) {
    const auto count = ::recv(connection->get(), answer, sizeof answer, 0);
    if (count > 0 && std::string_view(answer, static_cast<std::size_t>(count)) == "{\"ok\":true}\n") return;
  }
  std::fprintf(stderr, "an event was not answered\n");
  std::exit(1);
}

}  // namespace

double sendFromClients(const std::string& path, int clientCount, int events,
                       const std::vector<std::string>& documents) {
  std::atomic<int> next{0};
  const auto start = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> clients;
    for (int i = 0; i < clientCount; ++i) {
      clients.emplace_back([&] {
        for (int number = next++; number < events; number = next++) {
          sendOne(path, documents[static_cast<std::size_t>(number) % documents.size()]);
        }
      });
    }
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  return events / elapsed.count();
}

}  // namespace vimbrel::bench
