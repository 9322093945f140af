// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ScreenSaverInhibitor.h"

#include <array>
#include <utility>

namespace vimbrel {
namespace {

constexpr const char* screenSaver = "org.freedesktop.ScreenSaver";
// The specified path first; xssproxy and KDE's older releases answer at the short one only.
constexpr std::array paths{"/org/freedesktop/ScreenSaver", "/ScreenSaver"};

BusMethod method(std::size_t path, const char* member) {
  return {screenSaver, paths[path], screenSaver, member};
}

}  // namespace

ScreenSaverInhibitor::ScreenSaverInhibitor(std::shared_ptr<BusConnection> sessionBus,
                                           std::shared_ptr<TaskQueue> queue)
    : SleepInhibitor("screensaver", screenSaver, std::move(sessionBus), std::move(queue)) {}

void ScreenSaverInhibitor::take(const std::string& reason, unsigned round) { takeAt(0, reason, round); }

void ScreenSaverInhibitor::takeAt(std::size_t pathIndex, const std::string& reason, unsigned round) {
  auto answered = [weak = weak_from_this(), pathIndex, reason, round](BusReply reply) {
    const auto self = std::static_pointer_cast<ScreenSaverInhibitor>(weak.lock());
    if (!self || !self->awaits(round)) return;
    if (!reply) {
      if (reply.error().isUnknown() && pathIndex + 1 < paths.size()) {
        return self->takeAt(pathIndex + 1, reason, round);
      }
      return self->answered(round, std::unexpected(std::move(reply.error())));
    }
    self->path_ = pathIndex;
    self->cookie_ = reply->readUnsigned();
    if (!self->cookie_)
      return self->answered(round, std::unexpected(BusError{"Malformed", "it answered without a cookie"}));
    self->answered(round, {});
  };
  bus().call(method(pathIndex, "Inhibit"), {inhibitorName, reason}, std::move(answered),
             BusConnection::noTimeout);
}

void ScreenSaverInhibitor::readBack(std::function<void(ReadBack)> done) {
  done(ReadBack::notSupported);  // The interface has no operation for it.
}

void ScreenSaverInhibitor::giveBack() {
  if (const auto cookie = std::exchange(cookie_, std::nullopt)) {
    bus().send(method(path_, "UnInhibit"), {*cookie});
  }
}

bool ScreenSaverInhibitor::outlivesService() {
  cookie_.reset();
  return false;
}

}  // namespace vimbrel
