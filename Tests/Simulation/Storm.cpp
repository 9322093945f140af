// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Storm.h"

#include <malloc.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "Simulation/ControlPeers.h"
#include "Simulation/Recomputation.h"
#include "Simulation/SimulatedDisk.h"
#include "Simulation/UsageBooks.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

/// A lease, the helper's watchdog after it, and a second for the evaluation.
constexpr nanoseconds longestCover = 60s + 5s + 1s;
constexpr nanoseconds storeRetry = 11s;
/// Ten thousand sessions, everything that was ever stored in a storm, and the storm's own trace.
constexpr std::size_t mostMemory = 96U << 20U;

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
        application_(
            {},
            {.helper = [this](const HelperRequest& request) { return helper_->exchange()(request); },
             .usage =
                 [this](VirtualTime& time) { return usage_.makeCoordinator(time, application_.directory()); },
             .services = {}}),
        helper_(std::make_unique<SimulatedHelperProcess>(application_.time(), plan.flaw)),
        life_(application_, plan.seed),
        peers_(application_) {
    life_.onNote = [this](const std::string& what) { note(what); };
    application_.checkEveryTask([this] { return checkEveryTask(); });
    application_.alsoCheck([this] { return checkWhenSettled(); });
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
      noticeOthers();
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
    const auto disk = disk_.inEffect();
    peers_.poll();
    application_.run(duration);
  }
  void noticeOthers() {
    if (!violation_) violation_ = peers_.violation();
    if (!violation_) violation_ = usage_.violation();
  }

  // -- what happens

  void something(std::uint32_t seed) {
    const int kind = upTo(100);
    if (kind < 33) {
      count("life");
      const auto disk = disk_.inEffect();
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
    const auto log = usage_.agentWrites([this](int bound) { return upTo(bound); }, application_.time().now());
    note("the agent writes to " + log);
  }

  void hookCarriesTokens() {
    if (!application_.isAlive() || !usage_.isStoreOpen()) return;
    count("tokens by hook");
    HookEvent event;
    event.agent = AgentType::gemini;
    event.sessionId = "g";
    event.turnId = "t" + std::to_string(nextTurn_++);
    event.state = AgentState::idle;
    event.inputTokens = 1 + upTo(1000);
    event.timestamp = application_.time().now();
    note("a hook carries tokens: " + *event.turnId);
    application_.receiver().send(event.toJSONData());
    run(0s);
    if (usage_.isStoreOpen() && !usage_.isStored("gemini_g_" + *event.turnId)) {
      broken("a hook's usage is not stored");
    }
  }

  void applicationCrashes() {
    if (!application_.isAlive()) return;
    count("crashes of the application");
    const auto tasks = static_cast<std::size_t>(upTo(12));
    {
      const auto disk = disk_.inEffect();
      if (upTo(2) == 0) life_.happen(mixed(plan_.seed, step_, 5));
      application_.runTasks(tasks);
    }
    if (isOver()) return;
    note("the application crashes after " + std::to_string(tasks) + " tasks");
    rememberStored();
    peers_.end();
    application_.crash();
    usage_.storeClosed();
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
      const auto disk = disk_.inEffect();
      application_.stop();
      application_.settle();
    }
    rememberStored();
    peers_.end();
    const auto disk = disk_.inEffect();
    application_.kill();
    usage_.storeClosed();
    commandHolds_.clear();
    later(std::chrono::milliseconds(upTo(20'000)), [this] { relaunch(); });
  }

  void relaunch() {
    if (application_.isAlive() || isOver()) return;
    note("the application starts");
    launchedAt_ = uptime();
    const auto disk = disk_.inEffect();
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
      const auto disk = disk_.inEffect();
      helper_->stop();
    }
    faultAt_ = uptime();
    later(std::chrono::milliseconds(upTo(2) == 0 ? upTo(2000) : upTo(120'000)), [this] {
      faultAt_ = uptime();
      if (helper_->isAlive()) return;
      note("the helper starts");
      const auto disk = disk_.inEffect();
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
    if (disk_.isFull()) return;
    count("full disks");
    note("the disk is full");
    rememberStored();
    disk_.fill();
    later(std::chrono::milliseconds(upTo(60'000)), [this] {
      note("the disk has room again");
      disk_.free();
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
    const auto disk = disk_.inEffect();
    if (!application_.app().settings().setDeepLidProtectionEnabled(on)) note("that could not be written");
  }

  /// Everything is repaired; what was asked for is then there.
  void calmDown() {
    note("everything is repaired");
    disk_.free();
    helper_->setLine(SimulatedHelperProcess::Line::works);
    helper_->setRefused(false);
    if (!helper_->isAlive()) helper_->start();
    if (!application_.isAlive()) relaunch();
    usage_.agentFinishesItsLines();
    due_.clear();
    faultAt_ = diskFreeAt_ = uptime();
    lineFaults_ = refusals_ = busFaults_ = 0;
    application_.machine().setServiceRunning(true);
    pass(180s);
    peers_.everybodyLeaves();
    pass(12s);
    if (peers_.connectionCount() != 0) return broken("connections outlive their peers");
    if (isOver() || !usage_.isStoreOpen()) return;
    if (const auto fault = usage_.checkAllIsStored()) broken("at the end, " + *fault);
  }

  // -- promises

  /// What must be there after a crash at this moment: all that was accepted, unless it could not be written.
  void rememberStored() {
    if (!disk_.isFull() && uptime() - diskFreeAt_ > storeRetry) usage_.remember();
  }

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
    if (usage_.isStoreOpen() && uptime() - thoroughAt_ > 60s) {
      thoroughAt_ = uptime();
      if (auto fault = usage_.check()) return fault;
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
  SimulatedDisk disk_;
  UsageBooks usage_{disk_};
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

  int lineFaults_ = 0;
  int refusals_ = 0;
  int busFaults_ = 0;
  nanoseconds faultAt_{0};
  nanoseconds diskFreeAt_{-1h};
  nanoseconds launchedAt_{0};
  nanoseconds thoroughAt_{0};
  nanoseconds wantedAt_{0};
  std::optional<nanoseconds> wantedSince_;
  std::vector<Token> commandHolds_;
  int nextTurn_ = 0;
};

}  // namespace

StormResult runStorm(const StormPlan& plan) { return Storm(plan).run(); }

}  // namespace vimbrel
