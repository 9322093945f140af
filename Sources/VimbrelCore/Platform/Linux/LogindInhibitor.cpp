// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LogindInhibitor.h"

#include <unistd.h>

#include <utility>

namespace vimbrel {
namespace {

constexpr const char* loginService = "org.freedesktop.login1";

BusMethod manager(const char* member) {
  return {loginService, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", member};
}

/// Finds this process's idle lock among (what, who, why, mode, uid, pid) records.
bool listsOurLock(BusMessage& reply) {
  if (!reply.enter('a', "(ssssuu)")) return false;
  while (reply.enter('r', "ssssuu")) {
    const auto what = reply.readString();
    const auto who = reply.readString();
    const auto why = reply.readString();
    const auto mode = reply.readString();
    const auto user = reply.readUnsigned();
    const auto process = reply.readUnsigned();
    reply.exit();
    if (what == "idle" && who == inhibitorName && mode == "block" && why && user == ::getuid() &&
        process == static_cast<std::uint32_t>(::getpid())) {
      return true;
    }
  }
  return false;
}

}  // namespace

LogindInhibitor::LogindInhibitor(std::shared_ptr<BusConnection> systemBus, std::shared_ptr<TaskQueue> queue)
    : SleepInhibitor("logind", loginService, std::move(systemBus), std::move(queue)) {}

void LogindInhibitor::take(const std::string& reason, unsigned round) {
  auto answered = [weak = weak_from_this(), round](BusReply reply) {
    const auto self = std::static_pointer_cast<LogindInhibitor>(weak.lock());
    if (!self || !self->awaits(round))
      return;  // The descriptor in the answer closes with it, which gives the lock back.
    if (!reply) return self->answered(round, std::unexpected(std::move(reply.error())));
    self->lock_ = reply->readDescriptor();
    if (!self->lock_)
      return self->answered(round, std::unexpected(BusError{"Malformed", "logind answered without a lock"}));
    self->answered(round, {});
  };
  bus().call(manager("Inhibit"), {"idle", inhibitorName, reason, "block"}, std::move(answered),
             BusConnection::noTimeout);
}

void LogindInhibitor::readBack(std::function<void(ReadBack)> done) {
  bus().call(manager("ListInhibitors"), {}, [done = std::move(done)](BusReply reply) {
    if (!reply) return done(ReadBack::notSupported);
    done(listsOurLock(*reply) ? ReadBack::confirmed : ReadBack::unlisted);
  });
}

void LogindInhibitor::giveBack() { lock_.reset(); }

}  // namespace vimbrel
