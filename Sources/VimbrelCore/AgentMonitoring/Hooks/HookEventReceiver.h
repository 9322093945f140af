// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <memory>
#include <mutex>
#include <string>

#include "AgentMonitoring/Hooks/HookEventReceiving.h"
#include "Support/Clock.h"
#include "Support/Log.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

class HookIntake;

/// The application's end of the hook channel: a stream socket on which every connection carries one hook
/// event. A client writes one JSON document (at most 65,536 bytes, at once), is answered {"ok":true} or
/// {"ok":false,"error":"…"} with a newline, and disconnected. The delegate hears of the event after its
/// client was answered, on the queue "com.vimbrel.hookreceiver".
///
/// The socket's file is for its owner only, and only processes of the owner and of root are listened to. One
/// receiver serves a path: `start` refuses with `alreadyServed` while another process does. All operations:
/// any thread.
class HookEventReceiver final : public HookEventReceiving {
 public:
  /// `defaultHookSocketPath()` is where the relay sends.
  HookEventReceiver(std::string socketPath, QueueProvider& queues, const Clock& clock,
                    HookSenderObserver senderObserver = {});
  ~HookEventReceiver() override;
  HookEventReceiver(const HookEventReceiver&) = delete;
  HookEventReceiver& operator=(const HookEventReceiver&) = delete;

  void setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) override;
  /// Creates the socket's directory if need be (0700), replaces a stale socket file and starts accepting.
  /// Does nothing while running.
  [[nodiscard]] std::expected<void, HookReceiverError> start() override;
  /// Removes the socket's file, unless it has become another's, and drops every connection. A delivery that
  /// has begun on the queue may finish.
  void stop() override;
  [[nodiscard]] bool isRunning() const override;
  [[nodiscard]] const std::string& socketPath() const { return socketPath_; }

 private:
  struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity&) const = default;
  };

  [[nodiscard]] HookReceiverError failure(HookReceiverError::Fault fault, int code, std::string text) const;
  [[nodiscard]] std::optional<FileIdentity> socketFile() const;

  const std::string socketPath_;
  const HookSenderObserver senderObserver_;
  const Clock& clock_;
  const std::shared_ptr<TaskQueue> queue_;
  const Logger logger_{"hooks"};
  mutable std::mutex isRunningLock_;  // Guards all below.
  std::weak_ptr<HookEventReceiverDelegate> delegate_;
  std::shared_ptr<HookIntake> intake_;  // Present while running.
  std::optional<FileIdentity> ownFile_;
};

}  // namespace vimbrel
