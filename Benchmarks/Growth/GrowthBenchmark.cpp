// SPDX-License-Identifier: Apache-2.0
// How costs grow: with the number of sessions, with the bytes of a log, with the number of stored events.
// Each point is a median, beside a reference measured in turn with it. With VIMBREL_BENCH_GROWTH set, the
// points go to that file too, for the plots of `./dev bench --plots`: series, size, ours, reference, in
// microseconds.
#include <sys/stat.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "AgentMonitoring/AgentStateCoordinator.h"
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "AgentMonitoring/UsageReports.h"
#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "BenchmarkTable.h"
#include "ClaudeHistory.h"
#include "Power/WakePolicyEngine.h"
#include "ProcessRun.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace {

using namespace vimbrel;
namespace fs = std::filesystem;

/// Keeps the compiler from dropping what is computed.
volatile std::int64_t sink = 0;

double microsecondsOf(const std::function<void()>& work, int repetitions = 1) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repetitions; ++i) work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count() /
         repetitions;
}

struct Pair {
  double ours;
  double reference;
};

/// Medians of runs that take turns.
Pair compare(const std::function<void()>& ours, const std::function<void()>& reference, int rounds,
             int repetitions = 1) {
  std::vector<double> left;
  std::vector<double> right;
  for (int i = 0; i < rounds; ++i) {
    left.push_back(microsecondsOf(ours, repetitions));
    right.push_back(microsecondsOf(reference, repetitions));
  }
  return {median(left), median(right)};
}

void point(const std::string& series, std::size_t size, const std::string& what, Pair pair,
           const std::string& reference) {
  printBenchmarkRow({series + ", " + what, figure(pair.ours, "us"),
                     figure(pair.reference, "us") + " " + reference, pair.ours / pair.reference, "-",
                     std::nullopt});
  if (const char* path = std::getenv("VIMBREL_BENCH_GROWTH")) {
    if (std::FILE* file = std::fopen(path, "a")) {
      std::fprintf(file, "%s\t%zu\t%.3f\t%.3f\n", series.c_str(), size, pair.ours, pair.reference);
      std::fclose(file);
    }
  }
}

AgentSession sessionNumber(std::size_t i, Instant now) {
  AgentSession session;
  session.id = "session-" + std::to_string(i * 7919 % 100'000);
  session.agentType = allAgentTypes[i % allAgentTypes.size()];
  session.state = i % 2 == 0 ? AgentState::working : AgentState::idle;
  session.lastEventAt = session.startedAt = now;
  return session;
}

void sessions(std::size_t count) {
  VirtualTime time(instantFromUnixSeconds(1'800'000'000));
  const auto what = std::to_string(count) + " sessions";
  std::vector<AgentSession> all;
  for (std::size_t i = 0; i < count; ++i) all.push_back(sessionNumber(i, time.now()));

  PolicyEvaluationContext context;
  context.now = time.now();
  context.sessions = SessionSnapshot::of(all);
  const WakePolicyEngine engine;
  const auto pass = [&] {
    std::int64_t working = 0;
    for (const auto& session : context.sessions.entries())
      working += static_cast<std::int64_t>(session->isWorking());
    sink = working;
  };
  point("one evaluation", count, what,
        compare([&] { sink = engine.evaluate(context).asHold()->activeAgentCount; }, pass, 31, 20),
        "bare pass");

  AgentStateCoordinator coordinator(time);
  HookEvent event;
  event.agent = AgentType::claude;
  event.timestamp = time.now();
  for (const auto& session : all) {
    event.sessionId = session.id;
    event.state = session.state;
    coordinator.didReceiveHookEvent(event);
  }
  std::size_t next = 0;
  const auto apply = [&] {
    event.sessionId = all[++next % count].id;
    event.state = next % 3 == 0 ? AgentState::idle : AgentState::working;
    coordinator.didReceiveHookEvent(event);
  };
  const auto document = event.toJSONData();
  const auto decode = [&] {
    sink = static_cast<std::int64_t>(HookEvent::parse(document, time.now())->state);
  };
  point("one hook event applied", count, what, compare(apply, decode, 31, 200), "decoding it");
}

void logBytes(std::size_t mebibytes) {
  const TemporaryDirectory directory;
  writeClaudeHistory(directory.path(), {.bytes = mebibytes << 20U, .files = mebibytes, .directories = 1});
  VirtualTime time(instantFromUnixSeconds(1'800'000'000));
  // One file, as one conversation: a poll reads the five newest only.
  const auto one = directory.file("all.jsonl");
  {
    std::ofstream file(one, std::ios::binary);
    for (const auto& entry : fs::recursive_directory_iterator(directory.file("projects"))) {
      if (entry.is_regular_file()) file << std::ifstream(entry.path(), std::ios::binary).rdbuf();
    }
  }
  fs::remove_all(directory.file("projects"));
  fs::create_directories(directory.file("projects/p"));
  fs::rename(one, directory.file("projects/p/all.jsonl"));
  const auto read = [&] {
    ClaudeUsageProvider provider({directory.path()}, time.mainQueue(), time, ModelRateCard::builtIn(),
                                 nullptr);
    sink = static_cast<std::int64_t>(provider.pollLatestEvents().size());
  };
  const auto count = [&] {
    sink = runProcess({"/usr/bin/wc", "-l", directory.file("projects/p/all.jsonl")}).exitStatus;
  };
  point("reading a Claude Code log", mebibytes << 20U, std::to_string(mebibytes) + " MiB",
        compare(read, count, 5), "wc -l");
}

UsageEvent eventNumber(std::size_t i) {
  UsageEvent event;
  event.id = "event-" + std::to_string(i);
  event.agentType = AgentType::claude;
  event.sessionId = "session-" + std::to_string(i / 150);
  event.turnId = "msg_01" + std::to_string(i) + "aaaaaaaaaaaa";
  event.modelId = "model-" + std::to_string(i % 7);
  event.inputTokens = static_cast<std::int64_t>(i % 300);
  event.outputTokens = static_cast<std::int64_t>(i % 2000);
  event.cachedTokens = static_cast<std::int64_t>(i * 37 % 150'000);
  event.totalTokens = *event.inputTokens + *event.outputTokens + *event.cachedTokens;
  event.costEstimateUSD = 0.01;
  event.timestamp = instantFromUnixSeconds(1'700'000'000 + static_cast<double>(i) * 45);
  event.source = "bench";
  return event;
}

void storedEvents(std::size_t count) {
  const TemporaryDirectory directory;
  VirtualTime time(instantFromUnixSeconds(1'800'000'000));
  const UsageStoreOptions options{.path = directory.file("usage_store.json"),
                                  .durability = Durability::process};
  const auto what = std::to_string(count) + " events";
  std::vector<UsageEvent> events;
  for (std::size_t i = 0; i < count; ++i) events.push_back(eventNumber(i));
  {
    auto store = UsageStore::open(options, time.mainQueue(), time);
    (*store)->recordAll(events);
    (*store)->stop();
  }
  const auto load = [&] {
    sink = static_cast<std::int64_t>((*UsageStore::open(options, time.mainQueue(), time))->eventCount());
  };
  const auto cat = [&] { sink = runProcess({"/bin/cat", options.path}).exitStatus; };
  point("loading the usage store", count, what, compare(load, cat, 5), "cat");

  const auto store = UsageStore::open(options, time.mainQueue(), time);
  const UsageQuery query{.grouping = UsageGrouping::models};
  const auto report = [&] {
    sink = static_cast<std::int64_t>(makeUsageReport(**store, query, [](std::string_view) {
                                       return std::optional<std::string>{};
                                     }).rows.size());
  };
  if (!fs::exists("/usr/bin/sqlite3")) return;
  const auto rows = directory.file("rows.csv");
  {
    std::ofstream file(rows);
    for (const auto& event : events) {
      file << *event.modelId << ',' << event.sessionId << ',' << *event.inputTokens << ','
           << *event.outputTokens << ',' << *event.cachedTokens << ',' << *event.totalTokens << ','
           << *event.costEstimateUSD << '\n';
    }
  }
  const auto database = directory.file("rows.db");
  (void)runProcess({"/usr/bin/sqlite3", database,
                    "create table e(model text, session text, i int, o int, c int, t int, usd real);",
                    ".mode csv", ".import " + rows + " e"});
  const auto sql = [&] {
    sink = runProcess(
               {"/usr/bin/sqlite3", database,
                "select model,sum(i),sum(o),sum(c),sum(t),sum(usd),count(*),count(distinct session) from e "
                "group by model order by sum(t) desc;"})
               .exitStatus;
  };
  point("a report by model", count, what, compare(report, sql, 9), "sqlite3's shell");
}

}  // namespace

int main() {
  for (const std::size_t count : {10U, 100U, 1000U, 10'000U}) sessions(count);
  for (const std::size_t mebibytes : {1U, 10U, 100U}) logBytes(mebibytes);
  for (const std::size_t count : {1000U, 10'000U, 100'000U}) storedEvents(count);
  return 0;
}
