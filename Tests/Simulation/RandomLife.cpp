// SPDX-License-Identifier: Apache-2.0
#include "Simulation/RandomLife.h"

#include <algorithm>
#include <fstream>
#include <utility>

namespace vimbrel {

using namespace std::chrono_literals;

namespace {

constexpr double shortestDelaySeconds = 5;

std::string onOff(bool value) { return value ? " on" : " off"; }

}  // namespace

RandomLife::RandomLife(SimulatedApplication& application, std::uint32_t seed)
    : application_(application), random_(seed) {
  application_.alsoCheck([this] { return checkOwnBooks(); });
}

bool RandomLife::live(std::chrono::seconds duration) {
  for (std::chrono::nanoseconds left = duration; left > 0s && !application_.violation();) {
    // Bursts within one second, and long quiet spells.
    const auto pause =
        upTo(4) == 0 ? std::chrono::milliseconds(upTo(500)) : std::chrono::milliseconds(upTo(60'000));
    const auto before = application_.time().monotonic();
    for (auto rest = std::chrono::nanoseconds(pause); rest > 0ns && !application_.violation(); rest -= 1s) {
      application_.run(std::min<std::chrono::nanoseconds>(rest, 1s));
      drainBattery();
      const auto& decision = application_.decision();
      ++secondsSpent_[decision.isHolding() ? "hold" : decision.isBlocked() ? "blocked" : "release"];
    }
    left -= std::max<std::chrono::nanoseconds>(application_.time().monotonic() - before, 1ms);
    if (!application_.violation()) somethingHappens();
  }
  application_.settle();
  return !application_.violation();
}

void RandomLife::happen(std::uint32_t seed) {
  random_.seed(seed);
  somethingHappens();
}

void RandomLife::passSecond(std::uint32_t seed) {
  random_.seed(seed);
  drainBattery();
}

void RandomLife::applicationRestarted() {
  hookSessions_.clear();
  for (auto& [pid, since] : workingProcesses_) since = application_.time().monotonic();
}

void RandomLife::somethingHappens() {
  const int kind = upTo(100);
  if (kind < 45) {
    agentReports();
  } else if (kind < 60) {
    processComesOrGoes();
  } else if (kind < 72) {
    powerChanges();
  } else if (kind < 78) {
    heatChanges();
  } else if (kind < 92) {
    settingChanges();
  } else if (kind < 95) {
    settingsAreEdited();
  } else if (kind < 97) {
    clockJumps();
  } else {
    const bool works = upTo(3) != 0;
    note("assertions " + std::string(works ? "work" : "are refused"));
    application_.machine().change([&](SimulatedWorld& world) {
      world.systemAssertionWorks = works;
      world.displayAssertionWorks = upTo(2) == 0;
      world.lidClosed = upTo(2) == 0;
    });
  }
}

void RandomLife::agentReports() {
  if (upTo(20) == 0) {
    note("garbage on the hook socket");
    std::string garbage(static_cast<std::size_t>(upTo(200)), '\0');
    for (auto& byte : garbage) byte = static_cast<char>(upTo(256));
    application_.receiver().send(std::move(garbage));
    return;
  }
  // Working is followed by stopping more often than not, or the machine would never be released.
  static constexpr AgentState states[] = {AgentState::working,   AgentState::working, AgentState::waiting,
                                          AgentState::idle,      AgentState::idle,    AgentState::completed,
                                          AgentState::completed, AgentState::error,   AgentState::unknown};
  const auto state = states[upTo(std::size(states))];
  const auto agent = allAgentTypes[static_cast<std::size_t>(upTo(3))];
  const auto id = std::string(rawValue(agent)) + std::to_string(upTo(2));
  // Some events come late, through a slow hook.
  const auto happenedAt = application_.time().now() - Seconds(upTo(6) == 0 ? upTo(600) : 0);
  note("hook " + id + " " + std::string(rawValue(state)));
  application_.hook(agent, state, id, happenedAt);
  if (application_.isAlive()) hookSessions_[id] = {state, happenedAt};
}

void RandomLife::processComesOrGoes() {
  if (!workingProcesses_.empty() && upTo(2) == 0) {
    const auto gone = std::next(workingProcesses_.begin(), upTo(static_cast<int>(workingProcesses_.size())));
    note("process " + std::to_string(gone->first) + " ends");
    application_.machine().change([&](SimulatedWorld& world) {
      std::erase_if(world.processes, [&](const ProcessEntry& entry) { return entry.pid == gone->first; });
    });
    workingProcesses_.erase(gone);
    return;
  }
  if (workingProcesses_.size() > 2) return;
  const auto pid = nextPid_++;
  note("process " + std::to_string(pid) + " starts");
  application_.machine().change([&](SimulatedWorld& world) {
    world.processes.push_back({pid, "/usr/local/bin/codex exec fix tests"});
    world.processes.push_back({nextPid_++, "/usr/bin/make -j8"});
  });
  workingProcesses_[pid] = application_.time().monotonic();
}

void RandomLife::powerChanges() {
  application_.machine().change([&](SimulatedWorld& world) {
    if (upTo(12) == 0) {
      note("no power source to read");
      world.power.reset();
      return;
    }
    auto& power = world.power.emplace();
    power.isOnAC = upTo(3) != 0;
    power.isCharging = power.isOnAC ? upTo(2) == 0 : upTo(8) == 0;
    if (upTo(10) != 0) power.batteryPercent = upTo(3) == 0 ? upTo(101) : 10 + upTo(20);
    note("power" + onOff(power.isOnAC) + " mains, " + std::to_string(power.batteryPercent.value_or(-1)) +
         " %");
  });
}

void RandomLife::drainBattery() {
  if (upTo(20) != 0) return;
  application_.machine().change([](SimulatedWorld& world) {
    if (!world.power || !world.power->batteryPercent) return;
    auto& percent = *world.power->batteryPercent;
    percent =
        std::clamp<std::int64_t>(percent + (world.power->isOnAC || world.power->isCharging ? 1 : -1), 0, 100);
  });
}

void RandomLife::heatChanges() {
  const auto state = static_cast<SystemThermalState>(upTo(4));
  note("heat " + std::string(rawValue(state)));
  application_.machine().change([&](SimulatedWorld& world) { world.thermalState = state; });
}

void RandomLife::settingChanges() {
  if (!application_.isAlive()) return;
  auto& settings = application_.app().settings();
  SettingsStore::WriteResult result;
  switch (upTo(9)) {
    case 0:
      note("master switch");
      result = settings.setMasterEnabled(upTo(4) != 0);
      break;
    case 1:
      note("manual hold");
      result = settings.setManualHoldEnabled(upTo(4) == 0);
      break;
    case 2:
      note("only on AC");
      result = settings.setOnlyOnAC(upTo(4) == 0);
      break;
    case 3:
      note("floor");
      result = settings.setBatteryFloorPercent(upTo(60));
      break;
    case 4:
      note("release delay");
      result = settings.setReleaseDelaySeconds(shortestDelaySeconds + upTo(90));
      break;
    case 5:
      note("display");
      result = settings.setPreventDisplaySleep(upTo(2) == 0);
      break;
    case 6:
      note("pause");
      result = settings.pause(Seconds(upTo(600)));
      break;
    case 7:
      note("resume");
      result = settings.resume();
      break;
    default:
      note("reset");
      result = settings.resetToDefaults();
  }
  if (!result) note("a setting could not be written: " + result.error().text);
}

void RandomLife::settingsAreEdited() {
  static constexpr const char* edits[] = {R"({"masterEnabled": "maybe", "onlyOnAC": false})",
                                          R"({"batteryFloorPercent": 4000, "unknown": [1, 2]})",
                                          R"({"batteryFloorPercent": 20, "releaseDelaySeconds": 6})",
                                          "{\"masterEnabled\": fal",
                                          "[]",
                                          ""};
  const auto* edit = edits[upTo(std::size(edits))];
  note(std::string("edit ") + edit);
  std::ofstream(application_.settingsPath()) << edit;
  if (application_.isAlive()) application_.app().reloadSettings();
}

void RandomLife::clockJumps() {
  static constexpr double jumps[] = {-3600, -30, -1, 1, 45, 1000, 30'000};
  const double jump = jumps[upTo(std::size(jumps))];
  note("the clock jumps by " + std::to_string(static_cast<int>(jump)) + " s");
  application_.jumpWallClock(Seconds(jump));
  lastJump_ = application_.time().monotonic();
}

std::optional<std::string> RandomLife::checkOwnBooks() {
  const auto uptime = application_.time().monotonic();
  const auto now = application_.time().now();
  bool worksNow = false;
  for (const auto& [id, session] : hookSessions_) {
    // A second's grace at the end, which the evaluation's tick may have used up.
    worksNow = worksNow || (isActivelyWorking(session.state) && now - session.lastEventAt <= 899s);
  }
  // A scan a second sees a process within two. After a jump of the clock its session is stale until the next.
  bool processWorks = false;
  for (const auto& [pid, since] : workingProcesses_) processWorks = processWorks || uptime - since > 2s;
  worksNow = worksNow || (processWorks && (lastJump_ == 0s || uptime - lastJump_ > 2s));

  const auto& decision = application_.decision();
  const bool commandRuns = !application_.app().commandHolds().active(now).empty();
  if (worksNow || commandRuns || !workingProcesses_.empty()) nobodyWorkedSince_ = uptime;
  // A jump during the delay moves its end, and can make a silent session young again.
  nobodyWorkedSince_ = std::max(nobodyWorkedSince_, lastJump_);
  if (worksNow && decision.asRelease() != nullptr) return "released while an agent works, by its own account";
  const auto longestDelay = 95s + 1s;
  const bool couldCount = std::ranges::any_of(hookSessions_, [&](const auto& entry) {
    return isActivelyWorking(entry.second.state) && now - entry.second.lastEventAt <= 901s;
  });
  if (couldCount) nobodyWorkedSince_ = uptime;
  if (decision.isHolding() && !application_.app().settings().manualHoldEnabled() &&
      uptime - nobodyWorkedSince_ > longestDelay && lastJump_ == 0s) {
    return "still held long after the last agent stopped";
  }
  return std::nullopt;
}

void RandomLife::note(std::string what) {
  const auto seconds = std::chrono::duration_cast<std::chrono::milliseconds>(application_.time().monotonic());
  if (onNote) onNote(what);
  recent_.push_back(std::to_string(seconds.count()) + " ms: " + std::move(what));
  if (recent_.size() > 25) recent_.pop_front();
}

std::string RandomLife::recentEvents() const {
  std::string text;
  for (const auto& event : recent_) text += "  " + event + "\n";
  return text;
}

}  // namespace vimbrel
