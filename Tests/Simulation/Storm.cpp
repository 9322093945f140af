// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Storm.h"

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "Simulation/ControlPeers.h"
#include "Simulation/Recomputation.h"
#include "Support/CalendarDay.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

/// A lease, the helper's watchdog after it, and a second for the evaluation.
constexpr nanoseconds longestCover = 60s + 5s + 1s;
constexpr nanoseconds storeRetry = 11s;
/// Ten thousand sessions, everything that was ever stored in a storm, and the storm's own trace.
constexpr std::size_t mostMemory = 96U << 20U;

/// While it lives, no file of this process can grow: what a full disk does to writes.
class FullDisk {
 public:
  FullDisk() {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    handler_ = std::signal(SIGXFSZ, SIG_IGN);
    const rlimit none{0, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &none);
  }
  ~FullDisk() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  rlimit before_{};
  void (*handler_)(int) = nullptr;
};

std::uint32_t mixed(std::uint32_t seed, std::uint32_t step, std::uint32_t purpose) {
  std::seed_seq sequence{seed, step, purpose};
  std::uint32_t result = 0;
  sequence.generate(&result, &result + 1);
  return result;
}

class Storm {
 public:
  explicit Storm(const StormPlan& plan)
      : plan_(plan),
        application_({},
                     {.helper = [this](const HelperRequest& request) { return helper_->exchange()(request); },
                      .usage = [this](VirtualTime& time) { return makeUsage(time); },
                      .services = {}}),
        helper_(std::make_unique<SimulatedHelperProcess>(application_.time(), plan.flaw)),
        life_(application_, plan.seed),
        peers_(application_) {
    life_.onNote = [this](const std::string& what) { note(what); };
    application_.checkEveryTask([this] { return checkEveryTask(); });
    application_.alsoCheck([this] { return checkWhenSettled(); });
    std::filesystem::create_directories(logs_.file("projects/p"));
  }

  StormResult run() {
    helper_->start();
    application_.start();
    peers_.serve();
    if (!application_.app().settings().setDeepLidProtectionEnabled(true)) note("the lid cannot be asked for");
    std::uint32_t step = 0;
    for (; step < plan_.steps && !isOver(); ++step) {
      random_.seed(mixed(plan_.seed, step, 1));
      pass(upTo(3) == 0 ? std::chrono::milliseconds(upTo(500)) : std::chrono::milliseconds(upTo(30'000)));
      if (isOver()) break;
      if (plan_.only && !plan_.only->contains(step)) continue;
      random_.seed(mixed(plan_.seed, step, 2));
      step_ = step;
      something(mixed(plan_.seed, step, 3));
    }
    if (!isOver()) calmDown();
    peers_.end();
    result_.counts["comparisons of followers"] = peers_.comparisons();
    result_.violation = application_.violation() ? application_.violation() : violation_;
    result_.lastStep = step;
    result_.tasks = application_.taskCount();
    result_.lived = application_.time().monotonic();
    return std::move(result_);
  }

 private:
  [[nodiscard]] int upTo(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }
  [[nodiscard]] bool isOver() const { return application_.violation() || violation_; }
  [[nodiscard]] nanoseconds uptime() { return application_.time().monotonic(); }

  void note(const std::string& what) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(uptime()).count();
    result_.trace.push_back("step " + std::to_string(step_) + ", " + std::to_string(ms) + " ms: " + what);
  }
  void count(const char* kind) { ++result_.counts[kind]; }
  void broken(std::string what) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(uptime()).count();
    if (!violation_) violation_ = "after " + std::to_string(ms) + " ms: " + std::move(what);
  }

  // -- time

  void later(nanoseconds delay, std::function<void()> what) {
    due_.emplace(uptime() + delay, std::move(what));
  }

  void pass(nanoseconds duration) {
    const auto end = uptime() + duration;
    do {
      auto next = std::min(end, uptime() + 1s);
      if (!due_.empty()) next = std::clamp(due_.begin()->first, uptime(), next);
      run(next - uptime());
      while (peers_.look() && !isOver()) run(0s);
      noticePeers();
      life_.passSecond(mixed(plan_.seed, static_cast<std::uint32_t>(++secondsPassed_), 4));
      while (!due_.empty() && due_.begin()->first <= uptime()) {
        const auto what = std::move(due_.begin()->second);
        due_.erase(due_.begin());
        what();
      }
      (void)log_.take();
    } while (uptime() < end && !isOver());
  }

  void run(nanoseconds duration) {
    const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
    peers_.poll();
    application_.run(duration);
  }
  void noticePeers() {
    if (!violation_) violation_ = peers_.violation();
  }

  // -- what happens

  void something(std::uint32_t seed) {
    const int kind = upTo(100);
    if (kind < 33) {
      count("life");
      const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
      life_.happen(seed);
    } else if (kind < 38) {
      count("clients of the control socket");
      if (peers_.isServing()) note(peers_.happen([this](int bound) { return upTo(bound); }));
    } else if (kind < 40) {
      busDies();
    } else if (kind < 60) {
      agentWritesItsLog();
    } else if (kind < 64) {
      hookCarriesTokens();
    } else if (kind < 70) {
      applicationCrashes();
    } else if (kind < 73) {
      applicationIsRestarted();
    } else if (kind < 79) {
      helperDies();
    } else if (kind < 83) {
      lineFails();
    } else if (kind < 86) {
      systemRefuses();
    } else if (kind < 89) {
      diskFills();
    } else if (kind < 91) {
      machineIsSuspended();
    } else if (kind < 92) {
      manySessions();
    } else if (kind < 96) {
      commandHolds();
    } else {
      lidSettingChanges();
    }
  }

  void agentWritesItsLog() {
    count("lines of a log");
    const auto file = "s" + std::to_string(upTo(4));
    for (int lines = 1 + upTo(6); lines > 0; --lines) {
      // A message is often written again while it streams, with more each time.
      const auto id = "m" + std::to_string(upTo(3) == 0 ? upTo(20) : nextMessage_++);
      const std::int64_t output = 1 + upTo(5000);
      const auto at = formatIso8601(application_.time().now());
      writeLog(file, R"({"type":"assistant","sessionId":")" + file + R"(","timestamp":")" + at +
                         R"(","message":{"id":")" + id +
                         R"(","model":"claude-opus-5","usage":{"input_tokens":10,"output_tokens":)" +
                         std::to_string(output) + "}}}\n");
      auto& expected = expected_["claude_" + file + "_" + id];
      expected = std::max(expected, 10 + output);
    }
    note("the agent writes to " + file);
  }

  /// What is written may be cut anywhere and completed by the next write.
  void writeLog(const std::string& file, const std::string& line) {
    auto& rest = torn_[file];
    rest += line;
    const auto length =
        upTo(4) == 0 ? static_cast<std::size_t>(upTo(static_cast<int>(rest.size()))) : rest.size();
    std::ofstream(logs_.file("projects/p/" + file + ".jsonl"), std::ios::app | std::ios::binary)
        << rest.substr(0, length);
    rest.erase(0, length);
    writtenAt_ = uptime();
  }

  void hookCarriesTokens() {
    if (!application_.isAlive() || store_ == nullptr) return;
    count("tokens by hook");
    HookEvent event;
    event.agent = AgentType::gemini;
    event.sessionId = "g";
    event.turnId = "t" + std::to_string(nextMessage_++);
    event.state = AgentState::idle;
    event.inputTokens = 1 + upTo(1000);
    event.timestamp = application_.time().now();
    note("a hook carries tokens: " + *event.turnId);
    application_.receiver().send(event.toJSONData());
    run(0s);
    if (store_ != nullptr && !snapshot().contains("gemini_g_" + *event.turnId)) {
      broken("a hook's usage is not stored");
    }
  }

  void applicationCrashes() {
    if (!application_.isAlive()) return;
    count("crashes of the application");
    const auto tasks = static_cast<std::size_t>(upTo(12));
    {
      const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
      if (upTo(2) == 0) life_.happen(mixed(plan_.seed, step_, 5));
      application_.runTasks(tasks);
    }
    if (isOver()) return;
    note("the application crashes after " + std::to_string(tasks) + " tasks");
    rememberStored();
    peers_.end();
    application_.crash();
    store_ = nullptr;
    commandHolds_.clear();
    if (upTo(3) == 0) tearJournal();
    const auto pause = upTo(2) == 0 ? 0ms : std::chrono::milliseconds(upTo(90'000));
    later(pause, [this] { relaunch(); });
  }

  void applicationIsRestarted() {
    if (!application_.isAlive()) return;
    count("restarts of the application");
    note("the application is stopped");
    {
      const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
      application_.stop();
      application_.settle();
    }
    rememberStored();
    peers_.end();
    const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
    application_.kill();
    store_ = nullptr;
    commandHolds_.clear();
    later(std::chrono::milliseconds(upTo(20'000)), [this] { relaunch(); });
  }

  void relaunch() {
    if (application_.isAlive() || isOver()) return;
    note("the application starts");
    launchedAt_ = uptime();
    const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
    life_.applicationRestarted();
    application_.relaunch();
    peers_.serve();
  }

  void busDies() {
    count("restarts of the bus");
    note("the bus dies");
    application_.machine().setServiceRunning(false);
    busFaults_++;
    later(std::chrono::milliseconds(upTo(2) == 0 ? upTo(3000) : upTo(120'000)), [this] {
      if (--busFaults_ > 0) return;
      note("the bus is back");
      application_.machine().setServiceRunning(true);
    });
  }

  /// Half a line at the end of the journal, as a machine leaves it that loses its power while it writes.
  void tearJournal() {
    for (const auto& entry : std::filesystem::directory_iterator(application_.directory())) {
      if (entry.path().filename().string().starts_with("usage_store.journal.")) {
        note("the journal's last write is torn");
        count("torn journals");
        std::ofstream(entry.path(), std::ios::app) << R"({"id":"torn","agentType":"claude","sess)";
        return;
      }
    }
  }

  void helperDies() {
    if (!helper_->isAlive()) return;
    const int how = upTo(3);
    count(how == 2 ? "restarts of the helper" : "crashes of the helper");
    if (how == 0) {
      note("the helper will crash in its next change");
      helper_->crashInNextChange();
    } else if (how == 1) {
      note("the helper crashes");
      helper_->crash();
    } else {
      note("the helper is stopped");
      const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
      helper_->stop();
    }
    faultAt_ = uptime();
    later(std::chrono::milliseconds(upTo(2) == 0 ? upTo(2000) : upTo(120'000)), [this] {
      faultAt_ = uptime();
      if (helper_->isAlive()) return;
      note("the helper starts");
      const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
      helper_->start();
    });
  }

  void lineFails() {
    count("lost requests or answers");
    const bool requests = upTo(2) == 0;
    note(requests ? "requests to the helper are lost" : "answers of the helper are lost");
    helper_->setLine(requests ? SimulatedHelperProcess::Line::losesRequests
                              : SimulatedHelperProcess::Line::losesAnswers);
    lineFaults_++;
    later(std::chrono::milliseconds(upTo(100'000)), [this] {
      faultAt_ = uptime();
      if (--lineFaults_ == 0) helper_->setLine(SimulatedHelperProcess::Line::works);
    });
  }

  void systemRefuses() {
    count("refusals by the system");
    note("the system refuses to disable sleep");
    helper_->setRefused(true);
    refusals_++;
    later(std::chrono::milliseconds(upTo(60'000)), [this] {
      faultAt_ = uptime();
      if (--refusals_ == 0) helper_->setRefused(false);
    });
  }

  void diskFills() {
    if (isDiskFull_) return;
    count("full disks");
    note("the disk is full");
    rememberStored();
    isDiskFull_ = true;
    later(std::chrono::milliseconds(upTo(60'000)), [this] {
      note("the disk has room again");
      isDiskFull_ = false;
      diskFreeAt_ = uptime();
    });
  }

  void machineIsSuspended() {
    count("suspensions");
    const int seconds = 60 + upTo(30'000);
    note("the machine is suspended for " + std::to_string(seconds) + " s");
    application_.jumpWallClock(Seconds(seconds));
    life_.clockJumped();
    faultAt_ = uptime();
  }

  void manySessions() {
    if (!application_.isAlive()) return;
    count("thousands of sessions");
    const int sessions = 500 + upTo(2500);
    note(std::to_string(sessions) + " sessions come and go");
    for (int i = 0; i < sessions; ++i) {
      application_.hook(AgentType::custom, AgentState::idle, "many" + std::to_string(i));
    }
  }

  void commandHolds() {
    if (!application_.isAlive()) return;
    count("holds of commands");
    note("a command runs under a hold");
    const auto seconds = 1 + upTo(120);
    auto hold = application_.app().commandHolds().add(
        {"make", application_.time().now() + Seconds(seconds), upTo(2) == 0});
    commandHolds_.push_back(std::move(hold));
    application_.app().coordinator().scheduleEvaluation();
    const auto launched = launchedAt_;
    later(std::chrono::seconds(upTo(100)), [this, launched] {
      if (!application_.isAlive() || launched != launchedAt_ || commandHolds_.empty()) return;
      commandHolds_.erase(commandHolds_.begin());
      application_.app().coordinator().scheduleEvaluation();
    });
  }

  void lidSettingChanges() {
    if (!application_.isAlive()) return;
    const bool on = upTo(3) != 0;
    count("changes of the lid's setting");
    note(on ? "the lid is to be covered" : "the lid is not to be covered");
    const auto full = isDiskFull_ ? std::make_unique<FullDisk>() : nullptr;
    if (!application_.app().settings().setDeepLidProtectionEnabled(on)) note("that could not be written");
  }

  /// Everything is repaired; what was asked for is then there.
  void calmDown() {
    note("everything is repaired");
    isDiskFull_ = false;
    helper_->setLine(SimulatedHelperProcess::Line::works);
    helper_->setRefused(false);
    if (!helper_->isAlive()) helper_->start();
    if (!application_.isAlive()) relaunch();
    for (auto& [file, rest] : torn_) {
      std::ofstream(logs_.file("projects/p/" + file + ".jsonl"), std::ios::app | std::ios::binary) << rest;
      rest.clear();
    }
    due_.clear();
    faultAt_ = diskFreeAt_ = writtenAt_ = uptime();
    lineFaults_ = refusals_ = busFaults_ = 0;
    application_.machine().setServiceRunning(true);
    pass(180s);
    peers_.everybodyLeaves();
    pass(12s);
    if (peers_.connectionCount() != 0) return broken("connections outlive their peers");
    if (isOver() || store_ == nullptr) return;
    for (const auto& [key, total] : expected_) {
      if (!isStored(key, total)) return broken("at the end, usage of the log is not stored: " + key);
    }
  }

  // -- usage

  std::shared_ptr<UsageCoordinator> makeUsage(VirtualTime& time) {
    UsageCoordinator::Parts parts;
    parts.mainQueue = time.mainQueue();
    parts.workQueue = time.makeQueue("usage", QueueHome::background);
    parts.openStore = [this, &time]() -> std::expected<std::unique_ptr<UsageStore>, std::string> {
      UsageStoreOptions options;
      options.path = application_.directory() + "/usage_store.json";
      options.wholeFileBytes = 2000;  // Small, so that the journal is used.
      options.durability = Durability::process;
      auto opened = UsageStore::open(options, time.mainQueue(), time);
      if (opened) {
        store_ = opened->get();
        requireRemembered();
      } else if (!isDiskFull_) {
        broken("the usage store does not open: " + opened.error());
      }
      return opened;
    };
    parts.providers = {std::make_shared<ClaudeUsageProvider>(std::vector{logs_.path()},
                                                             time.makeQueue("claude", QueueHome::background),
                                                             time, ModelRateCard::builtIn(), nullptr)};
    return std::make_shared<UsageCoordinator>(std::move(parts), time);
  }

  using Stored = std::map<std::string, std::int64_t>;
  [[nodiscard]] Stored snapshot() const {
    Stored stored;
    for (const auto& event : store_->allEvents()) {
      if (!stored.emplace(event.deduplicationKey(), event.totalTokens.value_or(0)).second)
        stored["doubled"] = 1;
    }
    return stored;
  }
  [[nodiscard]] bool isStored(const std::string& key, std::int64_t total) const {
    const auto stored = snapshot();
    const auto found = stored.find(key);
    return found != stored.end() && found->second == total;
  }
  [[nodiscard]] bool canWrite() { return !isDiskFull_ && uptime() - diskFreeAt_ > storeRetry; }

  /// What must be there after a crash at this moment: all that was accepted, unless it could not be written.
  void rememberStored() {
    if (store_ != nullptr && canWrite()) stored_ = snapshot();
  }
  void requireRemembered() {
    const auto found = snapshot();
    for (const auto& [key, total] : stored_) {
      const auto entry = found.find(key);
      if (entry == found.end()) return broken("usage that was stored is lost: " + key);
      if (entry->second < total) return broken("usage that was stored counts less: " + key);
    }
  }

  std::optional<std::string> checkUsage() {
    const auto stored = snapshot();
    if (stored.contains("doubled")) return "a usage event is stored twice";
    for (const auto& [key, total] : stored) {
      const auto expected = expected_.find(key);
      if (key.starts_with("claude_") && (expected == expected_.end() || total > expected->second)) {
        return "usage is stored that nobody wrote: " + key;
      }
    }
    // Sums against a recomputation from the events.
    const auto events = store_->allEvents();
    const auto [from, to] = std::pair{instantFromUnixSeconds(-1e15), instantFromUnixSeconds(1e15)};
    if (store_->summary(from, to) != summarise(events)) return "the summary is not the sum of the events";
    std::map<std::string, std::int64_t> bySession;
    for (const auto& event : events) bySession[event.sessionId] += event.totalTokens.value_or(0);
    for (const auto& session : store_->recentSessions()) {
      if (session.totalTokens != bySession[session.id])
        return "a session's total is not the sum of its events";
    }
    return std::nullopt;
  }

  // -- promises

  std::optional<std::string> checkEveryTask() {
    const auto* hold = application_.isAlive() && application_.app().coordinator().isRunning()
                           ? application_.decision().asHold()
                           : nullptr;
    const bool isWanted = hold != nullptr && hold->requiresDeepHold;
    if (isWanted) wantedAt_ = uptime();
    if (!isWanted) wantedSince_.reset();
    if (isWanted && !wantedSince_) wantedSince_ = uptime();
    if (helper_->isSleepDisabled() && !helper_->isAlive()) return "sleep is disabled without a helper";
    if (helper_->isSleepDisabled() && uptime() - wantedAt_ > longestCover) {
      return "sleep stays disabled long after the last holder";
    }
    // Sessions, monitors and services have a few timers each, however long they run.
    if (application_.time().scheduledCount() > 5000) return "timers and tasks pile up";
    return violation_;
  }

  std::optional<std::string> checkWhenSettled() {
    if (violation_) return violation_;
    // A lease runs out by the clock, too: one that jumps ends it until it is taken again.
    const auto disturbedAt = std::max(faultAt_, life_.lastJump());
    const bool isCalm =
        helper_->isAlive() && lineFaults_ == 0 && refusals_ == 0 && uptime() - disturbedAt > 10s;
    if (isCalm && wantedSince_ && uptime() - *wantedSince_ > 10s && !helper_->isSleepDisabled()) {
      return "the lid is not covered although nothing stands in the way";
    }
    const auto& sessions = application_.app().agents().sessions().entries();
    if (sessions.size() > SessionLimits{}.sessions) return "the session table has no bound";
    const auto& published = application_.app().coordinator().activeSessionsList().get();
    if (!evaluationIsPending() && published.size() != sessions.size()) {
      return "the published sessions are not those of the table";
    }
    if (application_.time().scheduledCount() > 200) return "timers pile up";
    // Looked at now and then, because it takes long.
    if (store_ != nullptr && uptime() - thoroughAt_ > 60s) {
      thoroughAt_ = uptime();
      if (auto fault = checkUsage()) return fault;
      if (auto fault = differenceFromScratch(application_)) return fault;
      // Sanitizers keep books of their own, and this one at 0.
      if (::mallinfo2().uordblks > memoryBefore_ + mostMemory) return "memory has no bound";
    }
    return std::nullopt;
  }
  /// A change that came in this very second may be published in the next.
  [[nodiscard]] bool evaluationIsPending() { return uptime() - launchedAt_ < 2s; }

  const StormPlan plan_;
  CapturedLog log_;
  TemporaryDirectory logs_;
  SimulatedApplication application_;
  std::unique_ptr<SimulatedHelperProcess> helper_;
  RandomLife life_;
  ControlPeers peers_;
  std::mt19937 random_;
  const std::size_t memoryBefore_ = ::mallinfo2().uordblks;
  StormResult result_;
  std::optional<std::string> violation_;
  std::uint32_t step_ = 0;
  std::uint64_t secondsPassed_ = 0;
  std::multimap<nanoseconds, std::function<void()>> due_;

  bool isDiskFull_ = false;
  int lineFaults_ = 0;
  int refusals_ = 0;
  int busFaults_ = 0;
  nanoseconds faultAt_{0};
  nanoseconds diskFreeAt_{-1h};
  nanoseconds writtenAt_{0};
  nanoseconds launchedAt_{0};
  nanoseconds thoroughAt_{0};
  nanoseconds wantedAt_{0};
  std::optional<nanoseconds> wantedSince_;
  std::vector<Token> commandHolds_;

  UsageStore* store_ = nullptr;              // while the application lives and has opened it
  Stored stored_;                            // what must survive
  Stored expected_;                          // what stands in the log, by key
  std::map<std::string, std::string> torn_;  // what of the log is still to be written
  int nextMessage_ = 100;
};

}  // namespace

StormResult runStorm(const StormPlan& plan) { return Storm(plan).run(); }

std::string promiseOf(const std::string& violation) {
  const auto start = violation.find(": ");
  auto text = start == violation.npos ? violation : violation.substr(start + 2);
  text = text.substr(0, text.find(" ("));
  return text.substr(0, text.find(": "));
}

StormPlan minimised(const StormPlan& plan, const StormResult& result) {
  const auto promise = promiseOf(result.violation.value_or(""));
  StormPlan best = plan;
  if (!best.only) {
    best.only.emplace();
    for (std::uint32_t step = 0; step < plan.steps; ++step) best.only->insert(step);
  }
  best.only->erase(best.only->upper_bound(result.lastStep), best.only->end());
  const auto stillFails = [&](const StormPlan& candidate) {
    const auto again = runStorm(candidate);
    return again.violation && promiseOf(*again.violation) == promise;
  };
  // Pieces of half the steps first, then of a quarter, down to single ones, for as long as any can go.
  for (std::size_t piece = std::max<std::size_t>(1, best.only->size() / 2);;) {
    bool removed = false;
    for (std::size_t at = 0; at < best.only->size();) {
      StormPlan candidate = best;
      const auto from = std::next(candidate.only->begin(), static_cast<std::ptrdiff_t>(at));
      auto to = from;
      for (std::size_t i = 0; i < piece && to != candidate.only->end(); ++i) ++to;
      candidate.only->erase(from, to);
      if (stillFails(candidate)) {
        best = std::move(candidate);
        removed = true;
      } else {
        at += piece;
      }
    }
    if (piece == 1 && !removed) break;
    piece = std::max<std::size_t>(1, piece / 2);
  }
  return best;
}

}  // namespace vimbrel
