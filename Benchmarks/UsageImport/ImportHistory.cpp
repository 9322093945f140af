// SPDX-License-Identifier: Apache-2.0
// One import of a whole history into a store, as a process of its own: import_history ROOT STORE THREADS
#include <cstdio>
#include <cstdlib>

#include "AgentMonitoring/UsageImport/UsageImporter.h"
#include "Support/EventLoop.h"

int main(int argc, char** argv) {
  using namespace vimbrel;
  if (argc != 4) return 2;
  EventLoop loop;
  SystemClock clock;
  UsageStoreOptions options;
  options.path = std::string(argv[2]) + "/usage_store.json";
  auto store =
      UsageStore::open(options, loop.makeQueue("com.vimbrel.usage.store", QueueHome::background), clock);
  if (!store) {
    std::fprintf(stderr, "%s\n", store.error().c_str());
    return 1;
  }
  ImportIndex index(std::string(argv[2]) + "/usage_index.json");
  TurnOwners owners;
  UsageImporter importer(
      {.claudeRoots = {argv[1]}, .codexHome = "/nonexistent", .openCodeDirectory = "/nonexistent"}, **store,
      index, owners, ModelRateCard::builtIn(), clock, static_cast<unsigned>(std::atoi(argv[3])));
  const auto result = importer.run();
  std::printf("%zu files, %zu events\n", result.filesRead, result.eventsRecorded);
  (*store)->stop();
  return result.filesFailed == 0 ? 0 : 1;
}
