// SPDX-License-Identifier: Apache-2.0
#include "Simulation/SimulatedHelperProcess.h"

#include <functional>
#include <utility>

#include "Support/AtomicFile.h"

namespace vimbrel {

class SimulatedHelperProcess::Setting final : public SystemPowerControlling {
 public:
  [[nodiscard]] bool readSleepDisabled() override { return isDisabled; }
  bool writeSleepDisabled(bool disabled) override {
    if (disabled && isRefused) return false;
    const bool changes = isDisabled != disabled;
    isDisabled = disabled;
    if (changes && onChange) onChange();
    return true;
  }
  bool isDisabled = false;
  bool isRefused = false;
  std::function<void()> onChange;
};

namespace {

/// Carries out what is posted and forgets every timer.
class DeafQueue final : public TaskQueue {
 public:
  explicit DeafQueue(std::shared_ptr<TaskQueue> queue) : queue_(std::move(queue)) {}
  [[nodiscard]] const std::string& label() const override { return queue_->label(); }
  void post(Task task) override { queue_->post(std::move(task)); }
  Token after(std::chrono::nanoseconds, Task) override { return {}; }
  Token every(std::chrono::nanoseconds, std::chrono::nanoseconds, TimerPrecision,
              std::move_only_function<void()>) override {
    return {};
  }
  Token watchReadable(int, std::move_only_function<void()>) override { return {}; }
  Token onceWritable(int, Task) override { return {}; }
  [[nodiscard]] bool isCurrent() const override { return queue_->isCurrent(); }

 private:
  const std::shared_ptr<TaskQueue> queue_;
};

}  // namespace

SimulatedHelperProcess::SimulatedHelperProcess(VirtualTime& time, Flaw flaw)
    : time_(time), flaw_(flaw), setting_(std::make_shared<Setting>()) {
  setting_->onChange = [this] {
    if (!std::exchange(crashesInChange_, false)) return;
    stateAtCrash_ = readFile(directory_.file("state.json")).value_or("");
  };
}

SimulatedHelperProcess::~SimulatedHelperProcess() = default;

void SimulatedHelperProcess::start() {
  auto queue = time_.makeQueue("helper", QueueHome::mainThread);
  if (flaw_ == Flaw::deafToTime) queue = std::make_shared<DeafQueue>(std::move(queue));
  service_ = std::make_unique<HelperService>(
      HelperServiceParts{setting_, nullptr, directory_.file("state.json"), std::move(queue), nullptr}, time_);
  service_->start();
}

void SimulatedHelperProcess::stop() {
  service_->stop();
  service_.reset();
}

void SimulatedHelperProcess::crash() {
  service_.reset();
  setting_->isDisabled = false;
  crashesInChange_ = false;
}

void SimulatedHelperProcess::setRefused(bool refused) {
  setting_->isRefused = refused;
  if (refused) setting_->isDisabled = false;  // The system took it away.
}

bool SimulatedHelperProcess::isSleepDisabled() const { return setting_->isDisabled; }

HelperExchange SimulatedHelperProcess::exchange() {
  return [this](const HelperRequest& request) { return answer(request); };
}

std::optional<HelperResponse> SimulatedHelperProcess::answer(const HelperRequest& request) {
  if (!service_ || line_ == Line::losesRequests) return std::nullopt;
  constexpr uid_t user = 1000;
  auto response = service_->answer(request, user);
  if (stateAtCrash_) {
    crash();
    (void)replaceFile(directory_.file("state.json"), *std::exchange(stateAtCrash_, std::nullopt));
    return std::nullopt;
  }
  if (line_ == Line::losesAnswers) return std::nullopt;
  return response;
}

}  // namespace vimbrel
