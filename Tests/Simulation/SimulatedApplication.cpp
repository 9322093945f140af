// SPDX-License-Identifier: Apache-2.0
#include "Simulation/SimulatedApplication.h"

#include <algorithm>
#include <filesystem>
#include <utility>

namespace vimbrel {

using namespace std::chrono_literals;

/// Remembers what the last evaluation did, and how the world was then.
class SimulatedApplication::Witness final : public CoordinatorService {
 public:
  Witness(VirtualTime& time, SimulatedMachine& machine) : time_(time), machine_(machine) {}

  void didDecide(const PolicyEvaluationContext& context, const SessionSnapshot::Entries& /*newestFirst*/,
                 const WakeDecision& /*decision*/) override {
    evaluatedAt = time_.monotonic();
    now = context.now;
  }

  void didApply(const WakeDecision& /*previous*/, const WakeDecision& next) override {
    decision = next;
    couldTake = machine_.world().systemAssertionWorks && machine_.isServiceRunning();
    const auto power = machine_.world().power.value_or(PowerSourceSnapshot::desktopDefault());
    if (next == WakeDecision::blocked(SafetyBlock::batteryBelowFloor)) {
      isCutOff = true;
    } else if (power.isOnAC || power.batteryPercent.value_or(0) >= floorPercent() + 3) {
      isCutOff = false;
    }
  }

  std::function<std::int64_t()> floorPercent;
  std::optional<WakeDecision> decision;
  std::chrono::nanoseconds evaluatedAt{0};
  Instant now{};
  bool couldTake = true;
  bool isCutOff = false;  ///< from a decision for a low battery until AC power or the margin above the floor

 private:
  VirtualTime& time_;
  SimulatedMachine& machine_;
};

namespace {

/// The safety contract, from the state of the world rather than from what the application read of it.
std::optional<SafetyBlock> blockOf(const SimulatedWorld& world, const SettingsStore& settings, bool isCutOff,
                                   Instant now) {
  const auto power = world.power.value_or(PowerSourceSnapshot::desktopDefault());
  const auto floor = std::clamp<std::int64_t>(settings.batteryFloorPercent(), 5, 50);
  if (!settings.masterEnabled()) return SafetyBlock::masterDisabled;
  if (settings.pauseUntil().value_or(now) > now) return SafetyBlock::paused;
  if (world.thermalState == SystemThermalState::critical) return SafetyBlock::thermalCritical;
  if (settings.onlyOnAC() && !power.isOnAC) return SafetyBlock::acDisconnected;
  if (!power.isOnAC && !power.isCharging && power.batteryPercent &&
      (*power.batteryPercent <= floor || (isCutOff && *power.batteryPercent < floor + 3))) {
    return SafetyBlock::batteryBelowFloor;
  }
  return std::nullopt;
}

}  // namespace

SimulatedApplication::SimulatedApplication(SimulatedWorld world,
                                           std::vector<std::shared_ptr<CoordinatorService>> services)
    : SimulatedApplication(std::move(world), Surroundings{{}, {}, std::move(services)}) {}

SimulatedApplication::SimulatedApplication(SimulatedWorld world,
                                           std::vector<std::shared_ptr<CoordinatorService>> services,
                                           UsageFactory usage)
    : SimulatedApplication(std::move(world), Surroundings{{}, std::move(usage), std::move(services)}) {}

SimulatedApplication::SimulatedApplication(SimulatedWorld world, Surroundings surroundings)
    : time_(instantFromUnixSeconds(startUnixSeconds)),
      machine_(time_.mainQueue(), std::move(world)),
      receiver_(std::make_shared<DirectHookReceiver>(time_, time_)),
      witness_(std::make_shared<Witness>(time_, machine_)),
      surroundings_(std::move(surroundings)) {
  surroundings_.services.insert(surroundings_.services.begin(), witness_);
  launch();
}

void SimulatedApplication::launch() {
  application_ = std::make_unique<Application>(
      machine_.services(), time_, time_,
      ApplicationDirectories{directory_.path(), directory_.path(), directory_.path()},
      ApplicationOptions{.hookReceiver = receiver_,
                         .helperExchange = surroundings_.helper,
                         .usage = surroundings_.usage ? surroundings_.usage(time_) : nullptr,
                         .services = surroundings_.services});
  witness_->floorPercent = [this] { return app().settings().policyConfig().batteryFloorPercent; };
  witness_->decision.reset();
  witness_->isCutOff = false;
}

SimulatedApplication::~SimulatedApplication() = default;

void SimulatedApplication::start() {
  application_->start();
  settle();
}

void SimulatedApplication::stop() {
  application_->stop();
  if (!machine_.heldAssertions().empty()) fail("assertions are held after the stop");
}

void SimulatedApplication::kill() {
  application_.reset();
  if (!machine_.heldAssertions().empty()) fail("assertions outlive the application");
}

void SimulatedApplication::crash() {
  const auto aside = directory_.path() + ".aside";
  std::filesystem::copy(directory_.path(), aside, std::filesystem::copy_options::recursive);
  kill();
  std::filesystem::remove_all(directory_.path());
  std::filesystem::rename(aside, directory_.path());
}

void SimulatedApplication::relaunch() {
  launch();
  start();
}

void SimulatedApplication::hook(AgentType agent, AgentState state, const std::string& sessionId,
                                std::optional<Instant> timestamp) {
  HookEvent event;
  event.agent = agent;
  event.sessionId = sessionId;
  event.state = state;
  event.timestamp = timestamp.value_or(time_.now());
  receiver_->send(event.toJSONData());
}

bool SimulatedApplication::isHeld() const {
  return machine_.isHeld(AssertionType::preventUserIdleSystemSleep);
}
bool SimulatedApplication::isDisplayHeld() const {
  return machine_.isHeld(AssertionType::preventUserIdleDisplaySleep);
}

void SimulatedApplication::run(std::chrono::nanoseconds duration) {
  const auto end = time_.monotonic() + duration;
  for (;;) {
    while (!violation_ && time_.step(time_.monotonic())) checkAfterTask();
    if (!violation_) checkWhenSettled();
    if (violation_ || !time_.step(end)) break;
    checkAfterTask();
  }
  if (!violation_) time_.advance(std::max<std::chrono::nanoseconds>(end - time_.monotonic(), 0ns));
}

void SimulatedApplication::runTasks(std::size_t count) {
  const auto end = time_.monotonic() + 1s;
  for (; count > 0 && !violation_ && time_.step(end); --count) checkAfterTask();
}

void SimulatedApplication::fail(const std::string& what) {
  if (violation_) return;
  const auto seconds = std::chrono::duration_cast<std::chrono::milliseconds>(time_.monotonic()).count();
  violation_ = "after " + std::to_string(seconds) + " ms: " + what;
  if (application_) violation_ = *violation_ + " (" + decision().statusDescription() + ")";
}

void SimulatedApplication::checkAfterTask() {
  ++taskCount_;
  for (const auto& check : taskChecks_) {
    if (const auto broken = check()) fail(*broken);
  }
  if (!application_ || !witness_->decision) return;
  if (!application_->coordinator().isRunning()) {
    if (!machine_.heldAssertions().empty()) fail("assertions are held after the stop");
    return;
  }
  if (decision() != *witness_->decision)
    return fail("the published decision is not the one that was applied");
  const bool holds = decision().isHolding();
  if (isHeld() && !holds) fail("the assertion is held against the decision");
  if (holds && !isHeld() && witness_->couldTake && machine_.isServiceRunning())
    fail("the assertion is missing");
  if (isDisplayHeld() && !isHeld()) fail("the display assertion is held alone");
  if (machine_.heldAssertions().size() > 2) fail("an assertion is held twice");
}

void SimulatedApplication::checkWhenSettled() {
  if (!application_ || !application_->coordinator().isRunning() || !witness_->decision) return;
  if (time_.monotonic() - witness_->evaluatedAt > 1s) return fail("the evaluation timer has stopped");
  const auto now = witness_->now;
  const auto& settings = app().settings();
  if (WakePolicyEngine().evaluate(*app().coordinator().lastContext()) != decision()) {
    fail("the published decision is not what its context gives");
  }

  const auto block = blockOf(machine_.world(), settings, witness_->isCutOff, now);
  if (block && decision().isHolding()) fail("held although: " + std::string(rawValue(*block)));
  if (!block && decision().isBlocked()) fail("blocked without a reason");

  for (const auto& check : checks_) {
    if (const auto broken = check()) fail(*broken);
  }
  if (!checksWork_) return;
  bool works = false;
  for (const auto& session : app().agents().sessions().entries()) {
    works = works || (session->isWorking() && now - session->lastEventAt <= 900s);
  }
  if (!block && works && !decision().isHolding()) fail("released while an agent works");
  if (!block && settings.manualHoldEnabled() && !decision().isHolding())
    fail("released against a manual hold");
  const bool isAskedFor = settings.manualHoldEnabled() || !app().commandHolds().active(now).empty();
  if (!block && decision().isHolding() && !works && !isAskedFor) {
    const auto stoppedAt = app().agents().lastActiveAgentStoppedAt();
    const Seconds delay{std::max(0.0, settings.releaseDelaySeconds())};
    if (!stoppedAt || now - *stoppedAt >= delay) fail("held without a reason");
  }
}

}  // namespace vimbrel
