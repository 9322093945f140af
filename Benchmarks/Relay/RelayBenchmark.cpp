// SPDX-License-Identifier: Apache-2.0
// What one run of the relay costs an agent: time with the start of the process, instructions in user space,
// and resident memory, each against a static C program that does nothing but connect, write and read.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "BenchmarkTable.h"
#include "InstructionCount.h"
#include "Support/UnixSocket.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using Arguments = std::vector<std::string>;

/// Answers every connection with the least work, until stopped.
class Answerer {
 public:
  explicit Answerer(const std::string& path) {
    auto listening = listenOnUnixSocket(path, 0600, 64);
    if (!listening) {
      std::fprintf(stderr, "bench_relay: %s\n", listening.error().text().c_str());
      std::exit(1);
    }
    socket_ = std::move(*listening);
    // Accepting must wait, not spin.
    ::fcntl(socket_.get(), F_SETFL, 0);
    thread_ = std::thread([this] { serve(); });
  }
  ~Answerer() {
    ::shutdown(socket_.get(), SHUT_RDWR);
    thread_.join();
  }

 private:
  void serve() {
    static char bytes[65536];
    for (;;) {
      const Fd connection(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection) return;
      if (::recv(connection.get(), bytes, sizeof bytes, 0) > 0) {
        ::send(connection.get(), "{\"ok\":true}\n", 12, MSG_NOSIGNAL);
      }
    }
  }
  Fd socket_;
  std::thread thread_;
};

/// Starts the program with this file as its standard input; empty: with nothing to read.
pid_t spawn(const std::string& program, const Arguments& arguments, const std::string& input = {}) {
  std::vector<char*> pointers{const_cast<char*>(program.c_str())};
  for (const auto& argument : arguments) pointers.push_back(const_cast<char*>(argument.c_str()));
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.empty() ? "/dev/null" : input.c_str(),
                                   O_RDONLY, 0);
  pid_t pid = 0;
  const int failure = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (failure != 0) {
    std::fprintf(stderr, "bench_relay: cannot start %s\n", program.c_str());
    std::exit(1);
  }
  return pid;
}

double microsecondsOfRun(const std::string& program, const Arguments& arguments, const std::string& input) {
  const auto start = std::chrono::steady_clock::now();
  const auto pid = spawn(program, arguments, input);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                   values.end());
  return values[values.size() / 2];
}

struct Pair {
  double ours = 0;
  double reference = 0;
  double ratio = 0;
};

/// Runs both in turn, each first in every other pair, so that whatever else the machine does meets both
/// alike.
Pair compare(const std::string& program, const Arguments& arguments, const std::string& reference,
             const Arguments& referenceArguments, const std::string& input = {}) {
  constexpr int pairs = 2000;
  std::vector<double> ours;
  std::vector<double> references;
  std::vector<double> ratios;
  for (int i = 0; i < pairs; ++i) {
    std::array<double, 2> times{};
    for (const int which : {i % 2, 1 - i % 2}) {
      times[static_cast<std::size_t>(which)] = which == 0
                                                   ? microsecondsOfRun(program, arguments, input)
                                                   : microsecondsOfRun(reference, referenceArguments, input);
    }
    ours.push_back(times[0]);
    references.push_back(times[1]);
    ratios.push_back(times[0] / times[1]);
  }
  return {median(ours), median(references), median(ratios)};
}

/// Resident memory at its highest, in kilobytes, read while the program waits for an answer: the counters
/// that are left after its end include those of the process that started it.
std::optional<double> residentKilobytes(const std::string& program, const Arguments& arguments,
                                        const Fd& listening) {
  const auto pid = spawn(program, arguments);
  Fd connection(::accept4(listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
  char byte = 0;
  static_cast<void>(::recv(connection.get(), &byte, 1, 0));
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::optional<double> kilobytes;
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmHWM:")) kilobytes = std::strtod(line.c_str() + 6, nullptr);
  }
  connection.reset();  // It waits for an answer no longer.
  ::waitpid(pid, nullptr, 0);
  return kilobytes;
}

class Table {
 public:
  /// A row with a target that `met` says is met, or without one.
  void add(const char* what, const char* unit, double ours, double reference, double ratio,
           const char* target, std::optional<bool> met) {
    printBenchmarkRow(
        {std::string("relay: ") + what, figure(ours, unit), figure(reference, unit), ratio, target, met});
    allMet_ = allMet_ && met.value_or(true);
  }
  [[nodiscard]] bool allMet() const { return allMet_; }

 private:
  bool allMet_ = true;
};

int run() {
  const std::string relay = RELAY_PROGRAM;
  const std::string reference = REFERENCE_PROGRAM;
  const TemporaryDirectory directory;
  const auto path = directory.file("hook.sock");
  const auto nobody = directory.file("nobody.sock");
  const auto relayTo = [](const std::string& socket) {
    return Arguments{"--agent", "claude", "--state", "working", "--socket", socket};
  };
  Table table;
  {
    const Answerer answerer(path);
    const auto time = compare(relay, relayTo(path), reference, {path});
    table.add("run, received", "us", time.ours, time.reference, time.ratio, "ratio <= 1.05",
              time.ratio <= 1.05);
    // As agents call it: a kilobyte that begins with the session, and the most that is read without finding
    // it.
    const auto withKey = [&] {
      auto arguments = relayTo(path);
      arguments.insert(arguments.end(), {"--session-key", "session_id"});
      return arguments;
    }();
    const auto document = directory.file("document");
    std::ofstream(document) << R"({"session_id":"2f0c","tool_input":")" << std::string(1000, 'x') << "\"}";
    const auto longer = directory.file("long");
    std::ofstream(longer) << R"({"tool_input":")" << std::string(100'000, 'x') << "\"}";
    const auto keyed = compare(relay, withKey, relay, relayTo(path), document);
    table.add("run, session found in 1 kB (of received)", " us", keyed.ours, keyed.reference, keyed.ratio,
              "ratio <= 1.10", keyed.ratio <= 1.10);
    const auto unfound = compare(relay, withKey, relay, relayTo(path), longer);
    table.add("run, 64 kB without it (of received)", " us", unfound.ours, unfound.reference, unfound.ratio,
              "-", std::nullopt);
    const auto absent = compare(relay, relayTo(nobody), relay, relayTo(path));
    table.add("run, nobody listens (of one received)", "us", absent.ours, absent.reference, absent.ratio,
              "ratio < 1", absent.ratio < 1);
    const auto nothing = compare(relay, relayTo(path), "/bin/true", {});
    table.add("run, received (of /bin/true)", "us", nothing.ours, nothing.reference, nothing.ratio, "-",
              std::nullopt);

    const auto ours = userInstructions(relay, relayTo(path));
    const auto theirs = userInstructions(reference, {path});
    const auto alone = userInstructions(relay, relayTo(nobody));
    if (ours && theirs && alone) {
      const auto count = [](long value) { return static_cast<double>(value); };
      table.add("instructions, received", "", count(*ours), count(*theirs), count(*ours) / count(*theirs),
                "< 80000", *ours < 80000);
      table.add("instructions, nobody listens (of received)", "", count(*alone), count(*ours),
                count(*alone) / count(*ours), "ratio < 1", *alone < *ours);
    } else {
      std::printf("instructions: not counted, valgrind is missing\n");
    }
  }
  auto listening = listenOnUnixSocket(path, 0600, 64);
  if (!listening) return 1;
  ::fcntl(listening->get(), F_SETFL, 0);
  const auto ours = residentKilobytes(relay, relayTo(path), *listening);
  const auto theirs = residentKilobytes(reference, {path}, *listening);
  if (!ours || !theirs) return 1;
  table.add("resident at its highest", "kB", *ours, *theirs, *ours / *theirs, "<= 1700 kB", *ours <= 1700);
  return table.allMet() ? 0 : 1;
}

}  // namespace
}  // namespace vimbrel

int main() { return vimbrel::run(); }
