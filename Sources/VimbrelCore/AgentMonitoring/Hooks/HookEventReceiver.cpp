// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Hooks/HookEventReceiver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "AgentMonitoring/Hooks/HookIntake.h"
#include "Support/AtomicFile.h"
#include "Support/Sentence.h"
#include "Support/UnixSocket.h"

namespace vimbrel {
namespace {

constexpr int backlog = 64;
constexpr mode_t directoryMode = 0700;
constexpr mode_t socketMode = 0600;

}  // namespace

HookEventReceiver::HookEventReceiver(std::string socketPath, QueueProvider& queues, const Clock& clock,
                                     HookSenderObserver senderObserver)
    : socketPath_(std::move(socketPath)),
      senderObserver_(std::move(senderObserver)),
      clock_(clock),
      queue_(queues.makeQueue("com.vimbrel.hookreceiver", QueueHome::background)) {}

HookEventReceiver::~HookEventReceiver() { stop(); }

void HookEventReceiver::setDelegate(std::weak_ptr<HookEventReceiverDelegate> delegate) {
  const std::lock_guard guard(isRunningLock_);
  delegate_ = std::move(delegate);
  if (intake_) intake_->setDelegate(delegate_);
}

bool HookEventReceiver::isRunning() const {
  const std::lock_guard guard(isRunningLock_);
  return intake_ != nullptr;
}

std::optional<HookEventReceiver::FileIdentity> HookEventReceiver::socketFile() const {
  struct stat status{};
  if (::lstat(socketPath_.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity{status.st_dev, status.st_ino};
}

HookReceiverError HookEventReceiver::failure(HookReceiverError::Fault fault, int code,
                                             std::string text) const {
  return {fault, code, sentence("Cannot listen for hook events on %1: %2", {socketPath_, text})};
}

std::expected<void, HookReceiverError> HookEventReceiver::start() {
  using Fault = HookReceiverError::Fault;
  const std::lock_guard guard(isRunningLock_);
  if (intake_) return {};

  const auto slash = socketPath_.rfind('/');
  if (slash != std::string::npos && slash > 0) {
    if (const auto made = createDirectories(socketPath_.substr(0, slash), directoryMode); !made) {
      return std::unexpected(failure(Fault::directory, made.error().code, made.error().text()));
    }
  }
  auto listener = listenOnUnixSocket(socketPath_, socketMode, backlog);
  if (!listener) {
    const auto& error = listener.error();
    if (error.fault == SocketFault::pathTooLong) {
      return std::unexpected(failure(Fault::payloadTooLarge, 0, error.text()));
    }
    if (error.fault == SocketFault::alreadyServed) {
      return std::unexpected(failure(Fault::alreadyServed, 0, error.text()));
    }
    if (error.operation == "bind") {
      logger_.error("Failed to bind UNIX domain socket at %s: %d", socketPath_.c_str(), error.code);
    } else if (error.operation == "listen") {
      logger_.error("Failed to listen on socket: %d", error.code);
    } else {
      logger_.error("Failed to create UNIX domain socket: %d", error.code);
    }
    return std::unexpected(failure(Fault::system, error.code, error.text()));
  }
  ownFile_ = socketFile();
  auto intake = HookIntake::open(std::move(*listener), queue_, clock_, senderObserver_);
  if (!intake) {
    ::unlink(socketPath_.c_str());
    logger_.error("Failed to create UNIX domain socket: %d", intake.error());
    return std::unexpected(failure(Fault::system, intake.error(), std::strerror(intake.error())));
  }
  intake_ = std::move(*intake);
  intake_->setDelegate(delegate_);
  intake_->begin();
  logger_.info("HookEventReceiver started on %s", socketPath_.c_str());
  return {};
}

void HookEventReceiver::stop() {
  const std::lock_guard guard(isRunningLock_);
  if (!intake_) return;
  // The file goes first: as long as the socket listens, a process that starts meanwhile sees it served.
  if (ownFile_ && socketFile() == ownFile_) ::unlink(socketPath_.c_str());
  intake_->close();
  intake_.reset();
  logger_.info("HookEventReceiver stopped");
}

}  // namespace vimbrel
