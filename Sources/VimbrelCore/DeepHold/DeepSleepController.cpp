// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DeepSleepController.h"

#include <unistd.h>

#include <algorithm>
#include <future>
#include <mutex>
#include <utility>

#include "DeepHold/HelperSocketPath.h"
#include "Support/Log.h"
#include "Support/Sentence.h"
#include "Support/Uuid.h"

namespace vimbrel {
namespace {

/// A random UUID in its canonical form, which is upper case where this protocol comes from.
std::string makeLeaseId() {
  auto id = randomUuid();
  for (auto& character : id) {
    if (character >= 'a' && character <= 'f') character = static_cast<char>(character - 'a' + 'A');
  }
  return id;
}

}  // namespace
struct DeepSleepController::State {
  std::string socketPath;
  HelperExchange exchange;
  std::shared_ptr<TaskQueue> operations;  // one operation at a time, in order
  std::shared_ptr<TaskQueue> queue;       // the renewal timer's
  Logger logger{"deepsleep"};

  std::mutex lock;  // over what follows
  std::optional<std::string> currentLeaseId;
  std::string lastRefusal;
  Token renewalTimer;
  bool tornDown = false;

  void noteRefusal(std::string why) {
    const std::lock_guard guard(lock);
    lastRefusal = std::move(why);
  }

  /// What a missing answer means.
  [[nodiscard]] std::string silence() const {
    return ::access(socketPath.c_str(), F_OK) == 0
               ? sentence("the helper at %1 does not answer", {socketPath})
               : sentence("no helper is installed");
  }

  std::string takeOrMakeLeaseId() {
    const std::lock_guard guard(lock);
    if (!currentLeaseId) currentLeaseId = makeLeaseId();
    return *currentLeaseId;
  }

  void startRenewal(const std::string& leaseId, double ttlSeconds) {
    const std::lock_guard guard(lock);
    renewalTimer.reset();
    if (tornDown) return;
    const auto interval = std::chrono::duration_cast<std::chrono::nanoseconds>(
        Seconds{std::max(std::min(ttlSeconds, 86400.0) * 0.25, 5.0)});
    renewalTimer =
        queue->every(interval, interval, TimerPrecision::shared,
                     [ask = exchange, request = HelperRequest{HelperCommand::renew, leaseId, ttlSeconds}] {
                       (void)ask(request);
                     });
  }

  bool acquire(double ttlSeconds) {
    const auto leaseId = takeOrMakeLeaseId();
    const auto response = exchange({HelperCommand::acquire, leaseId, ttlSeconds});
    if (!response || !response->ok) {
      noteRefusal(response ? response->error.value_or(sentence("the helper gives no reason")) : silence());
      logger.error("Failed to acquire deep hold from helper");
      return false;
    }
    noteRefusal({});
    startRenewal(leaseId, ttlSeconds);
    logger.info("Successfully acquired deep hold lease %s", leaseId.c_str());
    return true;
  }

  void release() {
    std::optional<std::string> leaseId;
    {
      const std::lock_guard guard(lock);
      renewalTimer.reset();
      leaseId = std::exchange(currentLeaseId, std::nullopt);
    }
    if (!leaseId) return;
    (void)exchange({HelperCommand::release, leaseId, std::nullopt});
    logger.info("Released deep hold lease %s", leaseId->c_str());
  }

  DeepSleepStatus status() const {
    auto response = exchange({HelperCommand::status, std::nullopt, std::nullopt});
    if (response && response->status) return std::move(*response->status);
    DeepSleepStatus status;
    status.isHelperInstalled = ::access(socketPath.c_str(), F_OK) == 0;
    return status;
  }
};

DeepSleepController::DeepSleepController(QueueProvider& queues, std::optional<std::string> socketPath,
                                         HelperExchange exchange)
    : state_(std::make_shared<State>()) {
  state_->socketPath = socketPath ? std::move(*socketPath) : chooseHelperSocketPath();
  if (!exchange) {
    exchange = [path = state_->socketPath](const HelperRequest& request) {
      return exchangeWithHelper(path, request);
    };
  }
  state_->exchange = std::move(exchange);
  state_->operations = queues.makeQueue("com.vimbrel.deepsleepcontroller.operations", QueueHome::background);
  state_->queue = queues.makeQueue("com.vimbrel.deepsleepcontroller", QueueHome::background);
}

DeepSleepController::~DeepSleepController() {
  const std::lock_guard guard(state_->lock);
  state_->tornDown = true;
  state_->renewalTimer.reset();
}

const std::string& DeepSleepController::socketPath() const { return state_->socketPath; }

void DeepSleepController::status(std::move_only_function<void(DeepSleepStatus)> done) {
  state_->operations->post([state = state_, done = std::move(done)]() mutable {
    auto status = state->status();
    if (done) done(std::move(status));
  });
}

void DeepSleepController::acquire(double ttlSeconds, std::move_only_function<void(bool)> done) {
  state_->operations->post([state = state_, ttlSeconds, done = std::move(done)]() mutable {
    const bool acquired = state->acquire(ttlSeconds);
    if (done) done(acquired);
  });
}

void DeepSleepController::release(std::move_only_function<void()> done) {
  state_->operations->post([state = state_, done = std::move(done)]() mutable {
    state->release();
    if (done) done();
  });
}

void DeepSleepController::drain(std::chrono::milliseconds limit) {
  const auto drained = std::make_shared<std::promise<void>>();
  auto done = drained->get_future();
  state_->operations->post([drained] { drained->set_value(); });
  (void)done.wait_for(limit);
}

void DeepSleepController::letLapse() {
  state_->operations->post([state = state_] {
    const std::lock_guard guard(state->lock);
    state->renewalTimer.reset();
  });
}

std::string DeepSleepController::lastRefusal() const {
  const std::lock_guard guard(state_->lock);
  return state_->lastRefusal;
}

std::optional<std::string> DeepSleepController::leaseId() const {
  const std::lock_guard guard(state_->lock);
  return state_->currentLeaseId;
}

}  // namespace vimbrel
