// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Linux/BusConnection.h"
#include "Platform/NotificationCenter.h"

namespace vimbrel {

/// Shows notifications through the desktop's service (org.freedesktop.Notifications). A later notification
/// with the same identifier takes the place of the earlier one, also when that was closed meanwhile. Queue:
/// the main queue.
class BusNotificationCenter final : public NotificationCenter,
                                    public std::enable_shared_from_this<BusNotificationCenter> {
 public:
  static std::shared_ptr<BusNotificationCenter> create(std::shared_ptr<BusConnection> sessionBus);

  /// True while somebody serves notifications, and when the bus could start somebody who does.
  [[nodiscard]] bool isAvailable() override;
  /// Nobody needs to be asked here: answers at once, yes when there is a service.
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) override;
  void post(const Notification& notification, Completion completion) override;

 private:
  explicit BusNotificationCenter(std::shared_ptr<BusConnection> sessionBus) : bus_(std::move(sessionBus)) {}
  void follow();
  void serviceChanged(const std::string& owner);
  void learnCapabilities();
  void send(const Notification& notification, Completion completion);
  [[nodiscard]] bool canDo(const char* capability) const {
    return capabilities_ && capabilities_->contains(capability);
  }

  const std::shared_ptr<BusConnection> bus_;
  std::map<std::string, std::uint32_t> shown_;         ///< the service's number of each identifier's latest
  std::optional<std::set<std::string>> capabilities_;  ///< of the service; absent until it has told
  bool isAsking_ = false;
  std::vector<std::pair<Notification, Completion>> waiting_;  ///< for the capabilities
  bool isActivatable_ = false;
  Token owner_;
  Token actions_;
};

}  // namespace vimbrel
