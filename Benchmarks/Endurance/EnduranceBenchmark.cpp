// SPDX-License-Identifier: Apache-2.0
// Whether `vimbrel run` stays what it is through hours of work: five agents, an event a second, twenty
// subscribers that follow every state. Each event must be answered and reach every subscriber, and memory
// must stay flat. Usage: bench_endurance [SECONDS] (an hour unless given)
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "ProcessCost.h"
#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr std::size_t subscriberCount = 20;
constexpr std::array agents{"claude", "codex", "gemini", "opencode", "aider"};
constexpr double targetGrowthKiB = 128;
constexpr auto targetLatency = 900ms;  // before the next event

/// What the process holds for itself. The code that it shares counts more or less as others come and go.
std::uint64_t anonymousKiB(pid_t pid) {
  std::ifstream rollup("/proc/" + std::to_string(pid) + "/smaps_rollup");
  std::string line;
  while (std::getline(rollup, line)) {
    if (line.starts_with("Pss_Anon:")) return std::strtoull(line.c_str() + 9, nullptr, 10);
  }
  return 0;
}

/// One surface: keeps the newest state that it was sent.
class Subscriber {
 public:
  explicit Subscriber(Fd connection) : connection_(std::move(connection)) {
    constexpr std::string_view request = "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"subscribe\"}\n";
    isAlive_ = ::send(connection_.get(), request.data(), request.size(), MSG_NOSIGNAL) > 0;
  }
  [[nodiscard]] int descriptor() const { return connection_.get(); }
  [[nodiscard]] bool isAlive() const { return isAlive_; }
  [[nodiscard]] bool hasSeen(const std::string& mark) const { return state_.find(mark) != std::string::npos; }
  [[nodiscard]] std::uint64_t states() const { return states_; }
  void read() {
    std::array<char, 65536> buffer{};
    const auto count = ::recv(connection_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count == 0) isAlive_ = false;
    if (count <= 0) return;
    incoming_.append(buffer.data(), static_cast<std::size_t>(count));
    for (auto end = incoming_.find('\n'); end != std::string::npos; end = incoming_.find('\n')) {
      state_ = incoming_.substr(0, end);
      incoming_.erase(0, end + 1);
      ++states_;
    }
  }

 private:
  Fd connection_;
  bool isAlive_ = false;
  std::string incoming_;
  std::string state_;
  std::uint64_t states_ = 0;
};

bool sendEvent(const std::string& socket, std::uint64_t number, const std::string& mark) {
  auto connection = connectToUnixSocket(socket, 2000);
  const auto failed = [&](const char* step) {
    std::fprintf(stderr, "event %llu: %s: %s\n", static_cast<unsigned long long>(number), step,
                 std::strerror(errno));
    return false;
  };
  if (!connection) return failed("connect");
  const auto agent = number % agents.size();
  // Each agent rests once in ten minutes or so, all of them at once.
  const bool rests = (number / agents.size()) % 120 >= 110;
  const std::string event = std::string(R"({"schema":1,"agent":")") + agents.at(agent) +
                            R"(","session_id":"s)" + std::to_string(agent) + R"(","state":")" +
                            (rests ? "idle" : "working") + R"(","timestamp":)" +
                            std::to_string(::time(nullptr)) + R"(,"cwd":")" + mark + R"("})";
  if (::send(connection->get(), event.data(), event.size(), MSG_NOSIGNAL) < 0) return failed("send");
  ::shutdown(connection->get(), SHUT_WR);
  char answer[64];
  const auto count = ::recv(connection->get(), answer, sizeof answer, 0);
  if (count <= 0) return failed("answer");
  return std::string_view(answer, static_cast<std::size_t>(count)).find("true") != std::string_view::npos;
}

/// Serves all subscribers until the time is up; how long it took until each had seen the mark, if they did.
std::chrono::milliseconds follow(std::vector<Subscriber>& subscribers, const std::string& mark,
                                 steady_clock::time_point until) {
  const auto start = steady_clock::now();
  std::chrono::milliseconds seenAfter{-1};
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - steady_clock::now());
    if (left <= 0ms) return seenAfter;
    std::vector<pollfd> polls;
    for (const auto& each : subscribers) polls.push_back({each.descriptor(), POLLIN, 0});
    ::poll(polls.data(), polls.size(), static_cast<int>(left.count()));
    for (std::size_t i = 0; i < polls.size(); ++i) {
      if (polls[i].revents != 0) subscribers[i].read();
    }
    const bool all = std::all_of(subscribers.begin(), subscribers.end(),
                                 [&](const auto& each) { return each.hasSeen(mark); });
    if (all && seenAfter < 0ms) {
      seenAfter = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - start);
    }
  }
}

int run(int seconds) {
  const TemporaryDirectory home;
  const Child ours({VIMBREL_PROGRAM, "run"}, {{"HOME", home.path()}, {"PATH", "/usr/bin:/bin"}});
  const auto sockets = home.file(".local/share/Vimbrel/run/");
  for (int i = 0; i < 1000 && !isUnixSocketServed(sockets + "control.sock"); ++i)
    std::this_thread::sleep_for(10ms);
  std::vector<Subscriber> subscribers;
  for (std::size_t i = 0; i < subscriberCount; ++i) {
    auto connection = connectToUnixSocket(sockets + "control.sock", 2000);
    if (!connection) {
      std::fputs("bench_endurance: vimbrel run does not answer\n", stderr);
      return 1;
    }
    subscribers.emplace_back(std::move(*connection));
  }

  auto start = steady_clock::now();
  const auto warmAt = static_cast<std::uint64_t>(std::max(seconds / 10, 1));
  std::uint64_t unanswered = 0;
  std::uint64_t unseen = 0;
  std::uint64_t interruptions = 0;
  steady_clock::duration interruption{};
  std::vector<double> latencies;
  std::uint64_t warmKiB = 0;
  std::uint64_t highestKiB = 0;
  for (std::uint64_t second = 0; second < static_cast<std::uint64_t>(seconds); ++second) {
    // A machine that was stopped, or gave this program no time, must not be mistaken for events that were
    // lost: the plan goes on from here.
    if (const auto late = steady_clock::now() - start - std::chrono::seconds(second); late > 500ms) {
      ++interruptions;
      interruption += late;
      start += late;
    }
    const auto mark = "/endurance/" + std::to_string(second);
    if (!sendEvent(sockets + "vimbrel.sock", second, mark)) ++unanswered;
    const auto seenAfter = follow(subscribers, mark + "\"", start + std::chrono::seconds(second + 1));
    if (seenAfter < 0ms) {
      ++unseen;
    } else {
      latencies.push_back(static_cast<double>(seenAfter.count()));
    }
    if (second + 1 == warmAt) warmKiB = anonymousKiB(ours.pid());
    if (second > warmAt && second % 60 == 0) highestKiB = std::max(highestKiB, anonymousKiB(ours.pid()));
  }
  const auto cost = costOf(ours.pid());
  const auto endKiB = anonymousKiB(ours.pid());
  const auto lost =
      std::count_if(subscribers.begin(), subscribers.end(), [](const auto& each) { return !each.isAlive(); });
  std::uint64_t states = 0;
  for (const auto& each : subscribers) states += each.states();
  std::sort(latencies.begin(), latencies.end());
  const auto latencyAt = [&](double share) {
    return latencies.empty()
               ? 0.0
               : latencies[static_cast<std::size_t>(share * static_cast<double>(latencies.size() - 1))];
  };
  const double growth = static_cast<double>(endKiB) - static_cast<double>(warmKiB);
  std::printf("%d s, %d events of %zu agents, %zu subscribers, %llu states sent\n", seconds, seconds,
              agents.size(), subscriberCount, static_cast<unsigned long long>(states));
  std::printf(
      "events unanswered %llu; not seen by every subscriber within the second %llu; subscribers lost %ld\n",
      static_cast<unsigned long long>(unanswered), static_cast<unsigned long long>(unseen),
      static_cast<long>(lost));
  std::printf("this program itself was held up %llu times, %.0f s in all\n",
              static_cast<unsigned long long>(interruptions),
              std::chrono::duration<double>(interruption).count());
  std::printf("until every subscriber had it: median %.0f ms, 99 %% %.0f ms, longest %.0f ms\n",
              latencyAt(0.5), latencyAt(0.99), latencyAt(1));
  std::printf(
      "memory of its own: %llu KiB after a tenth of the time, %llu KiB at most later, %llu KiB at the end: "
      "%+.0f KiB (target %.0f)\n",
      static_cast<unsigned long long>(warmKiB), static_cast<unsigned long long>(highestKiB),
      static_cast<unsigned long long>(endKiB), growth, targetGrowthKiB);
  std::printf("processor time: %.0f ms a minute\n", cost.cpuMilliseconds * 60 / seconds);
  const bool good = unanswered == 0 && unseen == 0 && lost == 0 && growth <= targetGrowthKiB &&
                    latencyAt(1) <= static_cast<double>(targetLatency.count());
  std::puts(good ? "ok" : "MISSED");
  return good ? 0 : 1;
}

/// The application knows the machine's processes, and so what else runs on it shows in its memory. Where
/// namespaces are allowed, the measurement has its processes for itself.
void leaveOtherProcesses(char** argv) {
  constexpr const char* mark = "VIMBREL_ENDURANCE_ALONE";
  if (std::getenv(mark) != nullptr) return;
  const std::string options = ::geteuid() == 0 ? "-pf" : "-Urpf";
  if (std::system(("unshare " + options + " --mount-proc true 2>/dev/null").c_str()) != 0) {
    std::puts("no namespaces here: the machine's other processes are part of what is measured");
    return;
  }
  ::setenv(mark, "1", 1);
  std::vector<char*> words;
  std::string unshare = "unshare", flags = options, proc = "--mount-proc", kill = "--kill-child";
  for (auto* word : {&unshare, &flags, &kill, &proc}) words.push_back(word->data());
  for (; *argv != nullptr; ++argv) words.push_back(*argv);
  words.push_back(nullptr);
  ::execvp("unshare", words.data());
}

}  // namespace
}  // namespace vimbrel

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 3600;
  if (seconds < 1) {
    std::fputs("usage: bench_endurance [SECONDS]\n", stderr);
    return 2;
  }
  vimbrel::leaveOtherProcesses(argv);
  return vimbrel::run(seconds);
}
