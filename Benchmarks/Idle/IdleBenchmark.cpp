// SPDX-License-Identifier: Apache-2.0
// What `vimbrel run` costs while nothing happens, against the least that such a program can cost, and whether
// its memory stays flat under events. Usage: bench_idle [SECONDS]
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "BenchmarkTable.h"
#include "ProcessCost.h"
#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr std::size_t processesOnTheMachine = 300;
// What the product promises for its release build.
constexpr double targetCpuMillisecondsPerMinute = 40;
constexpr double targetWakeupsPerSecond = 1.2;
constexpr double targetMiB = 6;
/// Allocators and page counts move a little; a leak of one small object an event would be far more.
constexpr double targetGrowthKiB = 128;

struct Rate {
  double cpuPerMinute;
  double wakeupsPerSecond;
  double mebibytes;
};

Rate rateBetween(const ProcessCost& before, const ProcessCost& after, double seconds) {
  return {(after.cpuMilliseconds - before.cpuMilliseconds) * 60 / seconds,
          static_cast<double>(after.wakeups - before.wakeups) / seconds,
          static_cast<double>(after.proportionalKiB) / 1024};
}

bool report(const std::string& what, const char* unit, double ours, double reference, double target) {
  printBenchmarkRow({"idle: " + what, figure(ours, unit),
                     reference > 0 ? figure(reference, unit) + " one hertz" : "",
                     reference > 0 ? std::optional(ours / reference) : std::nullopt,
                     "<= " + figure(target, unit), ours <= target});
  return ours <= target;
}

bool awaitService(const std::string& socket) {
  for (int i = 0; i < 1000; ++i) {
    if (isUnixSocketServed(socket)) return true;
    std::this_thread::sleep_for(10ms);
  }
  return false;
}

/// One event of one of 200 sessions, as the relay sends it; true when it was answered.
bool sendEvent(const std::string& socket, int number) {
  auto connection = connectToUnixSocket(socket, 2000);
  if (!connection) return false;
  const std::string event = R"({"schema":1,"agent":"claude","session_id":"s)" + std::to_string(number % 200) +
                            R"(","state":")" + (number % 3 == 0 ? "idle" : "working") + R"(","timestamp":)" +
                            std::to_string(::time(nullptr)) + R"(,"cwd":"/home/somebody/project"})";
  if (::send(connection->get(), event.data(), event.size(), MSG_NOSIGNAL) < 0) return false;
  ::shutdown(connection->get(), SHUT_WR);
  char answer[64];
  return ::recv(connection->get(), answer, sizeof answer, 0) > 0;
}

int run(int seconds) {
  std::vector<Child> others;
  while (processCount() < processesOnTheMachine)
    others.emplace_back(std::vector<std::string>{}, std::map<std::string, std::string>{});

  const TemporaryDirectory home;
  std::map<std::string, std::string> environment{{"HOME", home.path()}, {"PATH", "/usr/bin:/bin"}};
  for (const char* name : {"DBUS_SESSION_BUS_ADDRESS", "DBUS_SYSTEM_BUS_ADDRESS"}) {
    if (const char* value = std::getenv(name)) environment[name] = value;
  }
  const Child ours({VIMBREL_PROGRAM, "run"}, environment);
  const Child reference({REFERENCE_PROGRAM}, environment);
  const auto sockets = home.file(".local/share/Vimbrel/run/");
  if (!awaitService(sockets + "control.sock")) {
    std::fputs("bench_idle: vimbrel run does not answer\n", stderr);
    return 1;
  }
  std::this_thread::sleep_for(5s);  // What it does once, at its start, is not what it costs while idle.

  const auto oursBefore = costOf(ours.pid());
  const auto referenceBefore = costOf(reference.pid());
  const auto start = steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const auto oursAfter = costOf(ours.pid());
  const auto referenceAfter = costOf(reference.pid());
  const double elapsed = std::chrono::duration<double>(steady_clock::now() - start).count();
  const auto our = rateBetween(oursBefore, oursAfter, elapsed);
  const auto its = rateBetween(referenceBefore, referenceAfter, elapsed);

  std::printf("%zu processes, %.0f s\n", processCount(), elapsed);
  bool good = report("processor time a minute", "ms", our.cpuPerMinute, its.cpuPerMinute,
                     targetCpuMillisecondsPerMinute);
  good &= report("wakeups a second", "", our.wakeupsPerSecond, its.wakeupsPerSecond, targetWakeupsPerSecond);
  good &= report("proportional memory", "MiB", our.mebibytes, its.mebibytes, targetMiB);

  // After these the table holds every session and the heap has seen its fullest queues: memory has no reason
  // to grow from there.
  int unanswered = 0;
  for (int i = 0; i < 5000; ++i) unanswered += sendEvent(sockets + "vimbrel.sock", i) ? 0 : 1;
  std::this_thread::sleep_for(2s);
  const auto warm = costOf(ours.pid()).proportionalKiB;
  for (int i = 0; i < 10000; ++i) unanswered += sendEvent(sockets + "vimbrel.sock", i) ? 0 : 1;
  std::this_thread::sleep_for(2s);
  const auto after = costOf(ours.pid()).proportionalKiB;
  const double growth = static_cast<double>(after) - static_cast<double>(warm);
  std::printf("memory with 200 sessions: %.2f MiB; events unanswered: %d\n", static_cast<double>(warm) / 1024,
              unanswered);
  good &= report("growth in 10,000 events", "KiB", growth, 0, targetGrowthKiB);
  return good && unanswered == 0 ? 0 : 1;
}

}  // namespace
}  // namespace vimbrel

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  if (seconds < 1) {
    std::fputs("usage: bench_idle [SECONDS]\n", stderr);
    return 2;
  }
  return vimbrel::run(seconds);
}
