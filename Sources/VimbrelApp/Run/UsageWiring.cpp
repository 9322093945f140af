// SPDX-License-Identifier: Apache-2.0
#include "Run/UsageWiring.h"

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"
#include "AgentMonitoring/UsageProviders/OpenCodeUsageProvider.h"
#include "Domain/RatesFile.h"
#include "Platform/Linux/InotifyTree.h"

namespace vimbrel {

UsageServices makeUsageServices(QueueProvider& queues, const Clock& clock) {
  UsageServices services;
  auto card = ratesFile::load(ratesFile::defaultPath());
  if (!card) {
    services.ratesProblem = card.error();
    Logger("usage.coordinator").error("%s", services.ratesProblem.c_str());
  }
  services.card = std::make_shared<const ModelRateCard>(card ? *std::move(card) : ModelRateCard::builtIn());
  const auto sources = UsageSources::ofUser();
  services.import = std::make_shared<HistoryImport>(sources, *services.card, clock);
  services.book = std::make_shared<MoneyBudgetBook>();

  const auto changes = [](const std::string& root) { return std::make_unique<InotifyTree>(root); };
  const auto queue = [&](const char* label) { return queues.makeQueue(label, QueueHome::background); };
  const auto codex = std::make_shared<CodexUsageProvider>(sources.codexHome, queue("com.vimbrel.usage.codex"),
                                                          clock, *services.card, changes);
  const auto openCode = std::make_shared<OpenCodeUsageProvider>(
      sources.openCodeDatabase(), queue("com.vimbrel.usage.opencode"), clock, *services.card);
  const auto claude = std::make_shared<ClaudeUsageProvider>(
      sources.claudeRoots, queue("com.vimbrel.usage.claude"), clock, *services.card, changes);
  UsageCoordinator::Parts parts;
  parts.mainQueue = queues.mainQueue();
  parts.workQueue = queue("com.vimbrel.usage.coordinator");
  parts.card = services.card.get();
  parts.indexPath = ImportIndex::defaultPath();
  parts.openStore = [store = queue("com.vimbrel.usage.store"), &clock] {
    return UsageStore::open(UsageStoreOptions{}, store, clock);
  };
  for (const std::shared_ptr<PollingUsageProvider>& provider :
       {std::shared_ptr<PollingUsageProvider>(codex), std::shared_ptr<PollingUsageProvider>(openCode),
        std::shared_ptr<PollingUsageProvider>(claude)}) {
    provider->setTickQueue(queues.mainQueue());
    parts.providers.push_back(provider);
  }
  parts.importHistory = [import = services.import](UsageStore& store, TurnOwners& owners,
                                                   const std::atomic<bool>& cancelled) {
    import->run(store, owners, cancelled);
  };
  services.coordinator = std::make_shared<UsageCoordinator>(std::move(parts), clock);
  services.budgetWatch =
      std::make_shared<MoneyBudgetWatch>(services.coordinator, services.book, clock, queues.mainQueue());
  return services;
}

}  // namespace vimbrel
