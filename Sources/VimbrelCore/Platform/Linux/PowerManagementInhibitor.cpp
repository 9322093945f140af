// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PowerManagementInhibitor.h"

#include <utility>

namespace vimbrel {
namespace {

constexpr const char* powerManagement = "org.freedesktop.PowerManagement";

BusMethod method(const char* member) {
  return {powerManagement, "/org/freedesktop/PowerManagement/Inhibit",
          "org.freedesktop.PowerManagement.Inhibit", member};
}

}  // namespace

PowerManagementInhibitor::PowerManagementInhibitor(std::shared_ptr<BusConnection> sessionBus,
                                                   std::shared_ptr<TaskQueue> queue)
    : SleepInhibitor("power-management", powerManagement, std::move(sessionBus), std::move(queue)) {}

void PowerManagementInhibitor::take(const std::string& reason, unsigned round) {
  auto answered = [weak = weak_from_this(), round](BusReply reply) {
    const auto self = std::static_pointer_cast<PowerManagementInhibitor>(weak.lock());
    if (!self || !self->awaits(round)) return;
    if (!reply) return self->answered(round, std::unexpected(std::move(reply.error())));
    self->cookie_ = reply->readUnsigned();
    if (!self->cookie_)
      return self->answered(round, std::unexpected(BusError{"Malformed", "it answered without a cookie"}));
    self->answered(round, {});
  };
  bus().call(method("Inhibit"), {inhibitorName, reason}, std::move(answered), BusConnection::noTimeout);
}

void PowerManagementInhibitor::readBack(std::function<void(ReadBack)> done) {
  // It tells only whether anybody inhibits, not who.
  bus().call(method("HasInhibit"), {}, [done = std::move(done)](BusReply reply) {
    const auto answer = reply ? reply->readBoolean() : std::nullopt;
    if (!answer) return done(ReadBack::notSupported);
    done(*answer ? ReadBack::confirmed : ReadBack::unlisted);
  });
}

void PowerManagementInhibitor::giveBack() {
  if (const auto cookie = std::exchange(cookie_, std::nullopt)) bus().send(method("UnInhibit"), {*cookie});
}

bool PowerManagementInhibitor::outlivesService() {
  cookie_.reset();
  return false;
}

}  // namespace vimbrel
