// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/BusNotificationCenter.h"

#include <utility>

#include "Support/MarkupText.h"

namespace vimbrel {
namespace {

constexpr const char* service = "org.freedesktop.Notifications";
constexpr const char* objectPath = "/org/freedesktop/Notifications";
constexpr std::size_t mostNames = 4096;

BusMethod method(const char* member) { return {service, objectPath, service, member}; }

/// A list of texts, at most so many.
std::set<std::string> readSet(BusMessage& reply) {
  std::set<std::string> texts;
  if (!reply.enter('a', "s")) return texts;
  while (texts.size() < mostNames) {
    auto text = reply.readString();
    if (!text) break;
    texts.insert(*std::move(text));
  }
  return texts;
}

}  // namespace

std::shared_ptr<BusNotificationCenter> BusNotificationCenter::create(
    std::shared_ptr<BusConnection> sessionBus) {
  const std::shared_ptr<BusNotificationCenter> center(new BusNotificationCenter(std::move(sessionBus)));
  center->follow();
  return center;
}

void BusNotificationCenter::follow() {
  owner_ = bus_->watchName(service, [weak = weak_from_this()](const std::string& owner) {
    if (const auto self = weak.lock()) self->serviceChanged(owner);
  });
  actions_ = bus_->onSignalWith(method("ActionInvoked"), [weak = weak_from_this()](BusMessage message) {
    const auto self = weak.lock();
    const auto number = message.readUnsigned();
    const auto key = message.readString();
    if (!self || !number || !key || !self->onAction) return;
    for (const auto& [identifier, shown] : self->shown_) {
      if (shown == *number) return self->onAction(identifier, *key);
    }
  });
}

void BusNotificationCenter::serviceChanged(const std::string& owner) {
  // Another service knows nothing of the numbers that this one gave.
  shown_.clear();
  capabilities_.reset();
  if (!owner.empty()) return;
  bus_->call(
      {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "ListActivatableNames"}, {},
      [weak = weak_from_this()](BusReply reply) {
        if (const auto self = weak.lock()) self->isActivatable_ = reply && readSet(*reply).contains(service);
      });
}

/// Once for each service, before its first notification; this starts one that can be started.
void BusNotificationCenter::learnCapabilities() {
  if (std::exchange(isAsking_, true)) return;
  auto ask = method("GetCapabilities");
  ask.mayStartService = true;
  bus_->call(ask, {}, [weak = weak_from_this()](BusReply reply) {
    const auto self = weak.lock();
    if (!self) return;
    self->isAsking_ = false;
    self->capabilities_ = reply ? readSet(*reply) : std::set<std::string>{};
    for (auto& [notification, completion] : std::exchange(self->waiting_, {})) {
      self->send(notification, std::move(completion));
    }
    // One that does not answer is asked again for the next notification.
    if (!reply) self->capabilities_.reset();
  });
}

bool BusNotificationCenter::isAvailable() {
  if (!bus_->isConnected()) return false;
  return isActivatable_ || !bus_->ownerOf(service).value_or("").empty();
}

void BusNotificationCenter::requestAuthorization(
    std::function<void(const std::expected<bool, std::string>&)> answer) {
  answer(true);
}

void BusNotificationCenter::post(const Notification& notification, Completion completion) {
  if (capabilities_) return send(notification, std::move(completion));
  waiting_.emplace_back(notification, std::move(completion));
  learnCapabilities();
}

void BusNotificationCenter::send(const Notification& notification, Completion completion) {
  std::vector<std::string> actions;
  // A service without buttons would show them as nothing, or as a click on the whole.
  if (canDo("actions")) {
    for (const auto& action : notification.actions) {
      actions.push_back(action.key);
      actions.push_back(action.label);
    }
  }
  const BusOptions hints{{"urgency", static_cast<std::uint8_t>(notification.urgency)},
                         {"desktop-entry", std::string("com.vimbrel.app")},
                         // The chime is ours, and has a setting.
                         {"suppress-sound", true}};
  constexpr std::int32_t serviceDecidesTimeout = -1;
  const auto known = shown_.find(notification.identifier);
  const std::uint32_t replaced = known == shown_.end() ? 0 : known->second;
  auto notify = method("Notify");
  notify.mayStartService = true;
  bus_->call(notify,
             {std::string("Vimbrel"), replaced, std::string("com.vimbrel.app"), notification.title,
              canDo("body-markup") ? escapedForMarkup(notification.body) : notification.body, actions, hints,
              serviceDecidesTimeout},
             [weak = weak_from_this(), identifier = notification.identifier,
              completion = std::move(completion)](BusReply reply) {
               if (!reply) return completion(std::unexpected(reply.error().message));
               const auto number = reply->readUnsigned();
               if (!number) return completion(std::unexpected("the service answered without a number"));
               if (const auto self = weak.lock()) self->shown_[identifier] = *number;
               completion({});
             });
}

}  // namespace vimbrel
