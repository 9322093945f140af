// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace vimbrel::bench {

/// Sends `events` documents, taken in turn from `documents`, each over a connection of its own, from
/// `clientCount` threads at once, and waits for every answer. Returns events per second; ends the program
/// when an answer is not the success answer.
double sendFromClients(const std::string& path, int clientCount, int events,
                       const std::vector<std::string>& documents);

}  // namespace vimbrel::bench
