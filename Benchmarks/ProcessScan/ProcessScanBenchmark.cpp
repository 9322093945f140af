// SPDX-License-Identifier: Apache-2.0
// Processor time of one process scan against that of one `/bin/ps -axo pid,command`, on a machine filled up
// to a given number of processes, with five new ones before each scan; and of a scan before which nothing was
// created.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <numeric>
#include <vector>

#include "AgentMonitoring/Processes/CommandClassifier.h"
#include "BenchmarkTable.h"
#include "Platform/Linux/ProcProcessList.h"
#include "Support/Fd.h"

extern char** environ;

namespace vimbrel {
namespace {

constexpr double unchangedTargetMicroseconds = 20;
constexpr double ratioTarget = 30;
constexpr int newProcesses = 5;

/// Scans come back to back here; for them a second passes from one to the next, as it does in use.
class SteppedClock final : public Clock {
 public:
  [[nodiscard]] Instant now() const override { return instantFromUnixSeconds(0); }
  [[nodiscard]] std::chrono::nanoseconds monotonic() const override { return elapsed_; }
  void step() { elapsed_ += std::chrono::seconds{1}; }

 private:
  std::chrono::nanoseconds elapsed_{0};
};

/// Processes that do nothing, ended with this object and, should it be killed, with this process. A nursery
/// process creates them: forking here would charge the copying of this process's pages to the scan.
class Sleepers {
 public:
  Sleepers() {
    int orders[2];
    int answers[2];
    if (::pipe2(orders, O_CLOEXEC) != 0 || ::pipe2(answers, O_CLOEXEC) != 0) fail("pipe");
    nursery_ = ::fork();
    if (nursery_ < 0) fail("fork");
    if (nursery_ == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::close(orders[1]);
      raise(Fd(orders[0]), Fd(answers[1]));
    }
    ::close(orders[0]);
    ::close(answers[1]);
    orders_ = Fd(orders[1]);
    answers_ = Fd(answers[0]);
  }
  ~Sleepers() {
    orders_.reset();
    ::waitpid(nursery_, nullptr, 0);
  }
  Sleepers(const Sleepers&) = delete;
  Sleepers& operator=(const Sleepers&) = delete;

  void add(int count) { order(count); }
  /// Ends the given number of processes, those that were added first.
  void end(int count) { order(-count); }

 private:
  [[noreturn]] static void fail(const char* operation) {
    std::perror(operation);
    std::exit(2);
  }
  void order(int count) {
    int answer = 0;
    if (::write(orders_.get(), &count, sizeof count) != sizeof count ||
        ::read(answers_.get(), &answer, sizeof answer) != sizeof answer || answer != 0) {
      std::fprintf(stderr, "cannot create processes\n");
      std::exit(2);
    }
  }
  /// The nursery's life: a positive order creates so many, a negative one ends so many.
  [[noreturn]] static void raise(const Fd& orders, const Fd& answers) {
    std::deque<pid_t> pids;
    const auto endFirst = [&] {
      ::kill(pids.front(), SIGKILL);
      ::waitpid(pids.front(), nullptr, 0);
      pids.pop_front();
    };
    int count = 0;
    while (::read(orders.get(), &count, sizeof count) == sizeof count) {
      int failures = 0;
      for (; count > 0; --count) {
        const pid_t pid = ::fork();
        if (pid == 0) {
          ::prctl(PR_SET_PDEATHSIG, SIGKILL);
          for (;;) ::pause();
        }
        if (pid > 0) pids.push_back(pid);
        failures += pid < 0 ? 1 : 0;
      }
      for (; count < 0 && !pids.empty(); ++count) endFirst();
      (void)!::write(answers.get(), &failures, sizeof failures);
    }
    while (!pids.empty()) endFirst();
    ::_exit(0);
  }

  pid_t nursery_ = 0;
  Fd orders_;
  Fd answers_;
};

double microseconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
}

double threadMicroseconds() {
  timespec time{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values.empty() ? 0 : values[values.size() / 2];
}

/// Processor time of one whole run of `ps`, its start included; its output goes nowhere.
double psMicroseconds() {
  posix_spawn_file_actions_t files;
  posix_spawn_file_actions_init(&files);
  posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  char program[] = "/bin/ps";
  char flags[] = "-axo";
  char columns[] = "pid,command";
  char* const arguments[] = {program, flags, columns, nullptr};
  pid_t pid = 0;
  const int failure = ::posix_spawn(&pid, program, &files, nullptr, arguments, environ);
  posix_spawn_file_actions_destroy(&files);
  int status = 0;
  rusage usage{};
  if (failure != 0 || ::wait4(pid, &status, 0, &usage) != pid || status != 0) {
    std::fprintf(stderr, "cannot run /bin/ps\n");
    std::exit(2);
  }
  return microseconds(usage.ru_utime) + microseconds(usage.ru_stime);
}

bool isRelevant(std::string_view command) { return classifyCommand(command).has_value(); }

class ScanBenchmark {
 public:
  bool run(std::size_t processes) {
    Sleepers standing;
    std::vector<std::int32_t> pids;
    (void)reader_.listProcesses(pids);
    Sleepers fresh;
    if (pids.size() + 2 < processes) standing.add(static_cast<int>(processes - pids.size() - 2));
    for (int i = 0; i < 20; ++i) (void)changedScan(fresh);

    std::vector<double> ours;
    std::vector<double> reference;
    for (int round = 0; round < 5; ++round) {
      reference.push_back(psMicroseconds());
      for (int i = 0; i < 8; ++i) ours.push_back(changedScan(fresh));
    }
    const double ratio = median(reference) / median(ours);
    const bool isFast = ratio >= ratioTarget;
    const auto name = "scan: " + std::to_string(processes) + " processes";
    const auto ps = figure(median(reference), "us") + " ps";
    printBenchmarkRow(
        {name + ", five of them new", figure(median(ours), "us"), ps, 1 / ratio, "<= 1/30", isFast});

    for (int i = 0; i < 4; ++i) (void)scan();
    const auto unchanged = unchangedScans();
    const double typical = median(unchanged);
    const double mean =
        std::accumulate(unchanged.begin(), unchanged.end(), 0.0) / static_cast<double>(unchanged.size());
    const bool isQuiet = !unchanged.empty() && typical <= unchangedTargetMicroseconds;
    printBenchmarkRow({name + ", nothing new", figure(typical, "us"), ps, typical / median(reference),
                       "<= " + figure(unchangedTargetMicroseconds, "us"), isQuiet});
    if (!unchanged.empty()) {
      const double worst = *std::ranges::max_element(unchanged);
      printBenchmarkRow(
          {name + ", nothing new, mean", figure(mean, "us"), ps, mean / median(reference), "-", {}});
      printBenchmarkRow({name + ", nothing new, worst", figure(worst, "us"), ps, std::nullopt, "-", {}});
    }
    return isFast && isQuiet;
  }

 private:
  double scan() {
    clock_.step();
    const double start = threadMicroseconds();
    const auto entries = list_.readRelevant(isRelevant);
    const double end = threadMicroseconds();
    if (!entries) {
      std::fprintf(stderr, "cannot read /proc\n");
      std::exit(2);
    }
    return end - start;
  }
  double changedScan(Sleepers& fresh) {
    fresh.add(newProcesses);
    const double time = scan();
    // Each lives for three scans, so that their number stands still.
    if (++rounds_ > 2) fresh.end(newProcesses);
    return time;
  }
  /// Scans before which no task was created by anybody on the machine.
  std::vector<double> unchangedScans() {
    std::vector<double> times;
    auto before = reader_.lastCreatedTask();
    for (int i = 0; i < 120; ++i) {
      const double time = scan();
      const auto after = reader_.lastCreatedTask();
      if (after == before) times.push_back(time);
      before = after;
    }
    return times;
  }

  SteppedClock clock_;
  ProcReader reader_;
  ProcProcessList list_{std::make_shared<ProcessTable>(clock_)};
  int rounds_ = 0;
};

}  // namespace
}  // namespace vimbrel

int main() {
  bool isMet = true;
  for (const std::size_t processes : {150U, 1000U, 5000U}) {
    isMet = vimbrel::ScanBenchmark().run(processes) && isMet;
    std::fflush(stdout);
  }
  return isMet ? 0 : 1;
}
