// SPDX-License-Identifier: Apache-2.0
#include "Simulation/Days.h"

#include <malloc.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "CapturedLog.h"
#include "Simulation/ControlPeers.h"
#include "Support/CalendarDay.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

class Days {
 public:
  Days()
      : application_(
            {},
            {.helper = {}, .usage = [this](VirtualTime& time) { return makeUsage(time); }, .services = {}}),
        peers_(application_) {
    fs::create_directories(logs_.file("projects/p"));
    application_.checkEveryTask([this] {
      peers_.poll();
      return peers_.violation();
    });
    application_.start();
    peers_.serve();
    if (!application_.app().settings().setDeepLidProtectionEnabled(true))
      wrong_ = "a setting cannot be written";
  }

  DaysResult live(const DaysPlan& plan) {
    DaysResult result;
    for (int day = 0; day < plan.days && !isOver(); ++day) {
      random_.seed(1);  // Every day is the same.
      for (int minute = 0; minute < plan.hoursAwake * 60 && !isOver(); ++minute) passMinute(day, minute);
      (void)application_.app().settings().resume();
      peers_.everybodyLeaves();
      pass(std::chrono::hours(plan.hoursOfNight));
      result.nights.push_back(read());
      peers_.end();
      peers_.serve();
    }
    result.tasks = application_.taskCount();
    result.violation = application_.violation() ? application_.violation() : wrong_;
    peers_.end();
    return result;
  }

 private:
  [[nodiscard]] bool isOver() const { return application_.violation() || wrong_; }
  int upTo(int bound) { return static_cast<int>(random_() % static_cast<unsigned>(bound)); }

  void passMinute(int day, int minute) {
    static constexpr AgentState states[] = {AgentState::working, AgentState::working, AgentState::waiting,
                                            AgentState::idle, AgentState::completed};
    for (int i = 0; i < 12; ++i) {
      const auto agent = allAgentTypes[static_cast<std::size_t>(upTo(5))];
      // A session lasts for some hours, and its name is never used again.
      const auto session =
          std::to_string(day) + "-" + std::to_string(minute / 180) + "-" + std::to_string(upTo(4));
      application_.hook(agent, states[upTo(std::size(states))], session);
      pass(5s);
    }
    application_.machine().change([&](SimulatedWorld& world) {
      auto& power = world.power.emplace();
      power.isOnAC = minute % 240 < 120;
      power.batteryPercent = power.isOnAC ? 40 + minute % 120 / 2 : 100 - minute % 120 / 2;
      world.lidClosed = minute % 90 > 70;
      world.thermalState = static_cast<SystemThermalState>(minute % 100 == 99 ? 3 : 0);
      world.processes.clear();
      if (minute % 7 < 3) world.processes.push_back({1000 + minute, "/usr/local/bin/codex exec fix tests"});
    });
    if (minute % 50 == 49) (void)application_.app().settings().pause(Seconds(60));
    if (minute % 15 == 0) peers_.happen([this](int bound) { return upTo(bound); });
    // The same messages every day: they are stored already.
    std::ofstream(logs_.file("projects/p/s.jsonl"), minute == 0 ? std::ios::trunc : std::ios::app)
        << R"({"type":"assistant","sessionId":"s","timestamp":"2027-01-15T08:00:00Z","message":{"id":"m)"
        << minute / 10 << R"(","model":"claude-opus-5","usage":{"input_tokens":10,"output_tokens":20}}})"
        << "\n";
  }

  void pass(std::chrono::nanoseconds duration) {
    for (const auto end = application_.time().monotonic() + duration;
         application_.time().monotonic() < end && !isOver();) {
      peers_.poll();
      application_.run(std::min<std::chrono::nanoseconds>(5s, end - application_.time().monotonic()));
      peers_.look();
      (void)log_.take();
    }
  }

  std::shared_ptr<UsageCoordinator> makeUsage(VirtualTime& time) {
    UsageCoordinator::Parts parts;
    parts.mainQueue = time.mainQueue();
    parts.workQueue = time.makeQueue("usage", QueueHome::background);
    parts.openStore = [this, &time] {
      UsageStoreOptions options;
      options.path = application_.directory() + "/usage_store.json";
      options.durability = Durability::process;
      return UsageStore::open(options, time.mainQueue(), time);
    };
    parts.providers = {std::make_shared<ClaudeUsageProvider>(std::vector{logs_.path()},
                                                             time.makeQueue("claude", QueueHome::background),
                                                             time, ModelRateCard::builtIn(), nullptr)};
    return std::make_shared<UsageCoordinator>(std::move(parts), time);
  }

  NightReading read() {
    NightReading reading;
    reading.allocatedBytes = ::mallinfo2().uordblks + ::mallinfo2().hblkhd;
    reading.scheduled = application_.time().scheduledCount();
    for (const auto& entry : fs::recursive_directory_iterator(application_.directory())) {
      if (entry.is_regular_file()) reading.fileBytes += entry.file_size();
    }
    reading.descriptors = static_cast<std::size_t>(
        std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator{}));
    return reading;
  }

  CapturedLog log_;
  TemporaryDirectory logs_;
  SimulatedApplication application_;
  ControlPeers peers_;
  std::mt19937 random_;
  std::optional<std::string> wrong_;
};

}  // namespace

DaysResult liveDays(const DaysPlan& plan) { return Days().live(plan); }

}  // namespace vimbrel
