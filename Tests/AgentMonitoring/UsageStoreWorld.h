// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// A store in a directory of its own, in virtual time.
struct UsageStoreWorld {
  TemporaryDirectory directory;
  VirtualTime time{instantFromUnixSeconds(1'763'200'000)};
  std::shared_ptr<TaskQueue> queue = time.makeQueue("usage", QueueHome::background);
  UsageStoreOptions options{.path = directory.file("usage_store.json"), .durability = Durability::process};
  std::unique_ptr<UsageStore> store;

  /// Opens the store, again if it is open: with everything that a clean stop does in between.
  UsageStore& open() {
    store.reset();
    auto opened = UsageStore::open(options, queue, time);
    if (opened) store = *std::move(opened);
    return *store;
  }

  /// How many events another process finds, if this one is killed now.
  [[nodiscard]] std::size_t countAfterAKill() const {
    UsageStoreWorld other;
    std::filesystem::copy(directory.path(), other.directory.path(), std::filesystem::copy_options::recursive);
    return other.open().eventCount();
  }

  [[nodiscard]] std::string contents(const std::string& name = "usage_store.json") const {
    std::ifstream file(directory.file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void put(const std::string& name, const std::string& text) const {
    std::ofstream(directory.file(name), std::ios::binary) << text;
  }
};

inline UsageEvent turn(const std::string& session, const std::string& id, std::int64_t tokens,
                       double at = 1'763'200'000) {
  return UsageEvent::make({.id = "e-" + id,
                           .agentType = AgentType::claude,
                           .sessionId = session,
                           .turnId = id,
                           .inputTokens = tokens,
                           .timestamp = instantFromUnixSeconds(at),
                           .source = "test"});
}

}  // namespace vimbrel
