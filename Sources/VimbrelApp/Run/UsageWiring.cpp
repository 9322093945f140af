// SPDX-License-Identifier: Apache-2.0
#include "Run/UsageWiring.h"

#include <malloc.h>

#include <thread>

#include "AgentMonitoring/UsageImport/UsageImporter.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"
#include "Platform/Linux/InotifyTree.h"

namespace vimbrel {

std::shared_ptr<UsageCoordinator> makeUsageCoordinator(QueueProvider& queues, const Clock& clock) {
  const auto sources = UsageSources::ofUser();
  const auto& card = ModelRateCard::builtIn();
  const auto changes = [](const std::string& root) { return std::make_unique<InotifyTree>(root); };
  const auto queue = [&](const char* label) { return queues.makeQueue(label, QueueHome::background); };

  const auto codex = std::make_shared<CodexUsageProvider>(sources.codexHome, queue("com.vimbrel.usage.codex"),
                                                          clock, card, changes);
  const auto openCode = std::make_shared<OpenCodeUsageProvider>(
      sources.openCodeDatabase(), queue("com.vimbrel.usage.opencode"), clock, card);
  const auto claude = std::make_shared<ClaudeUsageProvider>(
      sources.claudeRoots, queue("com.vimbrel.usage.claude"), clock, card, changes);
  UsageCoordinator::Parts parts;
  parts.mainQueue = queues.mainQueue();
  parts.workQueue = queue("com.vimbrel.usage.coordinator");
  parts.openStore = [store = queue("com.vimbrel.usage.store"), &clock] {
    return UsageStore::open(UsageStoreOptions{}, store, clock);
  };
  for (const std::shared_ptr<PollingUsageProvider>& provider :
       {std::shared_ptr<PollingUsageProvider>(codex), std::shared_ptr<PollingUsageProvider>(openCode),
        std::shared_ptr<PollingUsageProvider>(claude)}) {
    provider->setTickQueue(queues.mainQueue());
    parts.providers.push_back(provider);
  }
  parts.importHistory = [sources, &card, &clock](UsageStore& store, TurnOwners& owners,
                                                 const std::atomic<bool>& cancelled) {
    ImportIndex index;
    UsageImporter(sources, store, index, owners, card, clock, std::thread::hardware_concurrency())
        .run({}, &cancelled);
    // A first import of years leaves the heap with room that nothing will use again.
    ::malloc_trim(0);
  };
  return std::make_shared<UsageCoordinator>(std::move(parts), clock);
}

}  // namespace vimbrel
