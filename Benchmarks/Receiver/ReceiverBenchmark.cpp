// SPDX-License-Identifier: Apache-2.0
/// Events per second of the receiver (each decoded, applied to a table of 200 sessions and delivered with a
/// snapshot of it) against a bare accept-read-answer loop, with 8 clients at once; and the receiver's memory
/// over 10,000 events.

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "AgentMonitoring/AgentStateCoordinator.h"
#include "AgentMonitoring/Hooks/HookEventReceiver.h"
#include "BareLoop.h"
#include "BenchmarkTable.h"
#include "Clients.h"
#include "Support/EventLoop.h"

namespace vimbrel::bench {
namespace {

constexpr int clientCount = 8;
constexpr int backlog = 64;
constexpr int sessionCount = 200;
constexpr int eventsPerRun = 20'000;
constexpr int pairs = 9;
constexpr int memoryEvents = 10'000;
constexpr double targetRatio = 0.6;
constexpr long allowedGrowthKiB = 64;

HookEvent exampleEvent(int number) {
  HookEvent event;
  event.agent = allAgentTypes[static_cast<std::size_t>(number % 4)];
  event.sessionId = "0b6f2c1e-5f0a-4d5e-9a1b-" + std::to_string(100'000'000'000 + number % sessionCount);
  event.state = allAgentStates[static_cast<std::size_t>(1 + number / sessionCount % 4)];
  event.timestamp = instantFromUnixSeconds(1'760'000'000.25 + number);
  event.pid = 4000 + number % sessionCount;
  event.cwd = "/home/user/projects/example-" + std::to_string(number % 20);
  event.inputTokens = 1200;
  event.outputTokens = 300;
  event.model = "example-model-1";
  return event;
}

/// Keeps the latest snapshot, as the application does between two evaluations, and counts.
struct Keeper final : AgentStateCoordinatorDelegate {
  void agentSessionsDidChange(const SessionSnapshot& sessions, std::optional<Instant>) override {
    latest = sessions;
    ++delivered;
  }
  SessionSnapshot latest;
  long delivered = 0;
};

/// Serves until SIGTERM; fails unless every event it was sent was delivered and the table holds all sessions.
void runReceiver(const std::string& path, const std::function<void()>& ready) {
  const SystemClock clock;
  EventLoop loop;
  const auto coordinator = std::make_shared<AgentStateCoordinator>(clock);
  for (int i = 0; i < sessionCount; ++i) coordinator->didReceiveHookEvent(exampleEvent(i));
  const auto keeper = std::make_shared<Keeper>();
  coordinator->setDelegate(keeper);
  HookEventReceiver receiver(path, loop, clock);
  receiver.setDelegate(coordinator);
  Token ending;
  const auto terminate = loop.onSignal(SIGTERM, [&] {
    // What was answered last may still be on its way to the delegate.
    ending = loop.mainQueue()->after(std::chrono::milliseconds(200), [&] { loop.stop(); });
  });
  if (const auto started = receiver.start(); !started) {
    std::fprintf(stderr, "%s\n", started.error().text.c_str());
    std::_Exit(1);
  }
  ready();
  loop.run();
  receiver.stop();
  const bool complete =
      keeper->delivered % memoryEvents == 0 && keeper->delivered > 0 && keeper->latest.size() == sessionCount;
  std::_Exit(complete ? 0 : 1);
}

/// This program run again as a server, so that it shares no memory with the clients.
class ServerProcess {
 public:
  ServerProcess(const char* kind, const std::string& path) {
    int readiness[2];
    if (::pipe(readiness) != 0) std::abort();
    process_ = ::fork();
    if (process_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(readiness[1], STDOUT_FILENO);
      ::execl("/proc/self/exe", "bench_receiver", kind, path.c_str(), nullptr);
      std::_Exit(1);
    }
    ::close(readiness[1]);
    char byte = 0;
    if (::read(readiness[0], &byte, 1) != 1) std::exit(1);
    ::close(readiness[0]);
  }
  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] int end(int signal) const {
    ::kill(process_, signal);
    int status = 0;
    ::waitpid(process_, &status, 0);
    return status;
  }

 private:
  pid_t process_ = -1;
};

long proportionalKiB(pid_t process) {
  std::ifstream rollup("/proc/" + std::to_string(process) + "/smaps_rollup");
  std::string word;
  long value = 0;
  while (rollup >> word) {
    if (word == "Pss:" && rollup >> value) return value;
  }
  std::fprintf(stderr, "smaps_rollup cannot be read\n");
  std::exit(1);
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
  return values[values.size() / 2];
}

int run() {
  char pattern[] = "/tmp/vimbrel-bench-XXXXXX";
  const std::string directory = ::mkdtemp(pattern);
  std::vector<std::string> documents;
  for (int i = 0; i < sessionCount * 4; ++i) documents.push_back(exampleEvent(i).toJSONData());

  const auto measureOurs = [&] {
    const auto path = directory + "/ours";
    const ServerProcess server("receiver", path);
    const double rate = sendFromClients(path, clientCount, eventsPerRun, documents);
    if (server.end(SIGTERM) != 0) {
      std::fprintf(stderr, "the receiver did not deliver every event\n");
      std::exit(1);
    }
    return rate;
  };
  const auto measureBare = [&] {
    const auto path = directory + "/bare";
    const ServerProcess server("bare", path);
    const double rate = sendFromClients(path, clientCount, eventsPerRun, documents);
    static_cast<void>(server.end(SIGKILL));
    std::filesystem::remove(path);
    return rate;
  };

  std::vector<double> ours;
  std::vector<double> bare;
  std::vector<double> ratios;
  for (int pair = 0; pair < pairs; ++pair) {
    // Each goes first in turn, so that drift of the machine favours neither.
    if (pair % 2 == 0) ours.push_back(measureOurs());
    bare.push_back(measureBare());
    if (pair % 2 != 0) ours.push_back(measureOurs());
    ratios.push_back(ours.back() / bare.back());
  }

  const auto path = directory + "/memory";
  const ServerProcess server("receiver", path);
  sendFromClients(path, clientCount, memoryEvents,
                  documents);  // Fills caches and the allocator's free lists.
  const long before = proportionalKiB(server.process());
  sendFromClients(path, clientCount, memoryEvents, documents);
  const long after = proportionalKiB(server.process());
  const bool delivered = server.end(SIGTERM) == 0;
  std::filesystem::remove_all(directory);

  const double ratio = median(ratios);
  const bool fast = ratio >= targetRatio;
  const bool flat = after - before <= allowedGrowthKiB;
  // Of two rates the cost is the other way round.
  printBenchmarkRow({"receiver: events a second, 8 clients, 200 sessions", figure(median(ours), ""),
                     figure(median(bare), "") + " bare loop", 1 / ratio, "rate >= 0.60", fast});
  printBenchmarkRow({"receiver: memory after and before 10,000 events",
                     figure(static_cast<double>(after), "KiB"), figure(static_cast<double>(before), "KiB"),
                     std::nullopt, "<= +64 KiB", flat});
  return fast && flat && delivered ? 0 : 1;
}

}  // namespace
}  // namespace vimbrel::bench

int main(int argumentCount, char** arguments) {
  using namespace vimbrel::bench;
  if (argumentCount != 3) return run();
  const auto ready = [] {
    if (::write(STDOUT_FILENO, "r", 1) != 1) std::_Exit(1);
  };
  if (std::string_view(arguments[1]) == "bare") runBareLoop(arguments[2], backlog, ready);
  runReceiver(arguments[2], ready);
}
