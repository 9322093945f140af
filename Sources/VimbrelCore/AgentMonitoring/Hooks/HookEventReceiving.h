// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <string>

#include "Domain/HookEvent.h"

namespace vimbrel {

/// Takes hook events as they arrive. Held weakly; called on the receiver's queue.
class HookEventReceiverDelegate {
 public:
  virtual ~HookEventReceiverDelegate() = default;
  virtual void didReceiveHookEvent(const HookEvent& event) = 0;
};

/// Hears of each event before its sender is answered, and of the sender's process id. On the receiver's
/// queue.
using HookSenderObserver = std::function<void(const HookEvent& event, std::int32_t sender)>;

/// Why the receiver could not start; `text` is a sentence for people.
struct HookReceiverError {
  enum class Fault { payloadTooLarge, directory, alreadyServed, system };
  Fault fault = Fault::system;
  int code = 0;  ///< errno, where there is one
  std::string text;
};

/// Where hook events come from, as the coordinator sees it.
class HookEventReceiving {
 public:
  virtual ~HookEventReceiving() = default;
  virtual void setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) = 0;
  [[nodiscard]] virtual std::expected<void, HookReceiverError> start() = 0;
  virtual void stop() = 0;
  [[nodiscard]] virtual bool isRunning() const = 0;
};

}  // namespace vimbrel
