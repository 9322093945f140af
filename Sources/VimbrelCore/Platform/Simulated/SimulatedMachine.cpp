// SPDX-License-Identifier: Apache-2.0
#include "Platform/Simulated/SimulatedMachine.h"

#include <algorithm>
#include <mutex>
#include <utility>

#include "Support/Published.h"
#include "Support/Sentence.h"

namespace vimbrel {

struct SimulatedMachine::State {
  std::shared_ptr<TaskQueue> mainQueue;
  ChangeSignal powerChanged;
  ChangeSignal thermalChanged;
  ChangeSignal lidChanged;

  mutable std::mutex lock;  // Guards all below.
  SimulatedWorld world;
  ProcessEntries processes;
  std::vector<HeldAssertion> held;
  AssertionHandle lastHandle = 0;
  std::uint64_t granted = 0;
  bool serviceRuns = true;
  std::optional<std::string> problem;

  /// Told of the service's coming and going.
  std::vector<std::weak_ptr<SleepAssertions>> ports;
};

namespace {

using State = SimulatedMachine::State;
using StatePointer = std::shared_ptr<State>;

class Assertions final : public SleepAssertions {
 public:
  explicit Assertions(StatePointer state) : state_(std::move(state)) {}

  std::expected<AssertionHandle, AssertionError> create(AssertionType type, std::string_view name) override {
    const std::lock_guard guard(state_->lock);
    if (!state_->serviceRuns) {
      return std::unexpected(AssertionError{AssertionFault::unavailable, "the simulated service is away"});
    }
    const bool works = type == AssertionType::preventUserIdleSystemSleep
                           ? state_->world.systemAssertionWorks
                           : state_->world.displayAssertionWorks;
    if (!works) {
      return std::unexpected(
          AssertionError{AssertionFault::denied, sentence("the simulated machine refuses")});
    }
    if (++state_->lastHandle == 0) ++state_->lastHandle;  // 0 would mean "not held"
    state_->held.push_back({state_->lastHandle, type, std::string(name)});
    ++state_->granted;
    return state_->lastHandle;
  }

  void release(AssertionHandle handle) override {
    const std::lock_guard guard(state_->lock);
    std::erase_if(state_->held, [&](const auto& assertion) { return assertion.handle == handle; });
  }

  std::vector<MechanismStatus> mechanisms() const override {
    const std::lock_guard guard(state_->lock);
    auto status = MechanismState::available;
    if (!state_->serviceRuns) {
      status = MechanismState::missing;
    } else if (!state_->held.empty()) {
      status = MechanismState::granted;
    } else if (!state_->world.systemAssertionWorks) {
      status = MechanismState::refused;
    }
    return {{sentence("simulated"), status, sentence("nothing of the real machine is held")}};
  }

  bool isSimulated() const override { return true; }

 private:
  const StatePointer state_;
};

class Power final : public PowerSources {
 public:
  explicit Power(StatePointer state) : state_(std::move(state)) {}

  std::vector<PowerSourceDescription> read() override {
    const std::lock_guard guard(state_->lock);
    const auto& power = state_->world.power;
    if (!power) return {};
    PowerSourceDescription description;
    description.powerSourceState = power->isOnAC ? "AC Power" : "Battery Power";
    description.isCharging = power->isCharging;
    if (power->batteryPercent) {
      // A millionth of a percent more, so that the quotient's truncation gives the percentage that was asked.
      description.currentCapacity = *power->batteryPercent * 1'000'000 + 1;
      description.maxCapacity = 100'000'000;
    }
    description.timeToEmptyMinutes = power->timeRemainingMinutes;
    return {description};
  }

  bool isLowPowerModeEnabled() override {
    const std::lock_guard guard(state_->lock);
    return state_->world.power && state_->world.power->isLowPowerMode;
  }

  Token watch(std::function<void()> changed) override {
    return state_->powerChanged.subscribe(std::move(changed));
  }

 private:
  const StatePointer state_;
};

class Thermal final : public ThermalPressure {
 public:
  explicit Thermal(StatePointer state) : state_(std::move(state)) {}
  int level() override {
    const std::lock_guard guard(state_->lock);
    return static_cast<int>(state_->world.thermalState);
  }
  Token watch(std::function<void()> changed) override {
    return state_->thermalChanged.subscribe(std::move(changed));
  }

 private:
  const StatePointer state_;
};

class Lid final : public LidSwitch {
 public:
  explicit Lid(StatePointer state) : state_(std::move(state)) {}
  std::optional<bool> isClosed() override {
    const std::lock_guard guard(state_->lock);
    return state_->world.lidClosed;
  }
  Token watch(std::function<void()> changed) override {
    return state_->lidChanged.subscribe(std::move(changed));
  }

 private:
  const StatePointer state_;
};

class Applications final : public RunningApplications {
 public:
  explicit Applications(StatePointer state) : state_(std::move(state)) {}
  std::vector<RunningApplication> list() override {
    const std::lock_guard guard(state_->lock);
    return state_->world.applications;
  }

 private:
  const StatePointer state_;
};

class Processes final : public ProcessList {
 public:
  explicit Processes(StatePointer state) : state_(std::move(state)) {}

  ProcessEntries readAll() override {
    const std::lock_guard guard(state_->lock);
    return state_->processes;
  }

  ProcessEntries readRelevant(const std::function<bool(std::string_view)>& relevant) override {
    const auto all = readAll();
    if (all == filteredFrom_) return filtered_;
    auto kept = std::make_shared<std::vector<ProcessEntry>>();
    for (const auto& entry : *all) {
      if (relevant(entry.command)) kept->push_back(entry);
    }
    filteredFrom_ = all;
    if (!filtered_ || *filtered_ != *kept) filtered_ = std::move(kept);
    return filtered_;
  }

 private:
  const StatePointer state_;
  ProcessEntries filteredFrom_;
  ProcessEntries filtered_;
};

void announce(const StatePointer& state, ChangeSignal State::* signal) {
  state->mainQueue->post([weak = std::weak_ptr(state), signal] {
    if (const auto alive = weak.lock()) (alive.get()->*signal).send();
  });
}

void announceMechanisms(const StatePointer& state) {
  state->mainQueue->post([weak = std::weak_ptr(state)] {
    const auto alive = weak.lock();
    if (!alive) return;
    std::vector<std::weak_ptr<SleepAssertions>> ports;
    {
      const std::lock_guard guard(alive->lock);
      ports = alive->ports;
    }
    for (const auto& each : ports) {
      if (const auto port = each.lock(); port && port->onMechanismsChanged) port->onMechanismsChanged();
    }
  });
}

std::vector<DoctorFinding> examine(const State& state) {
  const std::lock_guard guard(state.lock);
  std::vector<DoctorFinding> findings{{sentence("machine"), DoctorFinding::Verdict::warning,
                                       sentence("simulated: nothing of the real machine is held"),
                                       sentence("run without --simulate to keep this machine awake")}};
  if (state.problem) {
    findings.push_back({sentence("world file"), DoctorFinding::Verdict::refused, *state.problem,
                        sentence("repair the file")});
  }
  return findings;
}

}  // namespace

SimulatedMachine::SimulatedMachine(std::shared_ptr<TaskQueue> mainQueue, SimulatedWorld world)
    : state_(std::make_shared<State>()) {
  state_->mainQueue = std::move(mainQueue);
  state_->processes = std::make_shared<const std::vector<ProcessEntry>>(world.processes);
  state_->world = std::move(world);
}

PlatformServices SimulatedMachine::services() const {
  const auto assertions = std::make_shared<Assertions>(state_);
  {
    const std::lock_guard guard(state_->lock);
    std::erase_if(state_->ports, [](const auto& port) { return port.expired(); });
    state_->ports.push_back(assertions);
  }
  return {.assertions = assertions,
          .powerSources = std::make_shared<Power>(state_),
          .thermalPressure = std::make_shared<Thermal>(state_),
          .lidSwitch = std::make_shared<Lid>(state_),
          .runningApplications = std::make_shared<Applications>(state_),
          .processList = std::make_shared<Processes>(state_),
          .examine = [state = state_] { return examine(*state); }};
}

SimulatedWorld SimulatedMachine::world() const {
  const std::lock_guard guard(state_->lock);
  return state_->world;
}

void SimulatedMachine::setWorld(SimulatedWorld world) {
  change([&](SimulatedWorld& current) { current = std::move(world); });
}

void SimulatedMachine::change(const std::function<void(SimulatedWorld&)>& edit) {
  const std::lock_guard guard(state_->lock);
  const auto old = state_->world;
  edit(state_->world);
  const auto& now = state_->world;
  if (old.processes != now.processes) {
    state_->processes = std::make_shared<const std::vector<ProcessEntry>>(now.processes);
  }
  if (old.power != now.power) announce(state_, &State::powerChanged);
  if (old.thermalState != now.thermalState) announce(state_, &State::thermalChanged);
  if (old.lidClosed != now.lidClosed) announce(state_, &State::lidChanged);
  if (old.systemAssertionWorks != now.systemAssertionWorks) announceMechanisms(state_);
}

std::vector<SimulatedMachine::HeldAssertion> SimulatedMachine::heldAssertions() const {
  const std::lock_guard guard(state_->lock);
  return state_->held;
}

bool SimulatedMachine::isHeld(AssertionType type) const {
  const std::lock_guard guard(state_->lock);
  return state_->serviceRuns &&
         std::ranges::find(state_->held, type, &HeldAssertion::type) != state_->held.end();
}

bool SimulatedMachine::isServiceRunning() const {
  const std::lock_guard guard(state_->lock);
  return state_->serviceRuns;
}

void SimulatedMachine::setServiceRunning(bool runs) {
  {
    const std::lock_guard guard(state_->lock);
    if (std::exchange(state_->serviceRuns, runs) == runs) return;
  }
  announceMechanisms(state_);
}

std::uint64_t SimulatedMachine::grantedCount() const {
  const std::lock_guard guard(state_->lock);
  return state_->granted;
}

void SimulatedMachine::setProblem(std::optional<std::string> problem) {
  const std::lock_guard guard(state_->lock);
  state_->problem = std::move(problem);
}

std::optional<std::string> SimulatedMachine::problem() const {
  const std::lock_guard guard(state_->lock);
  return state_->problem;
}

}  // namespace vimbrel
