// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/GnomeSessionInhibitor.h"

#include <utility>
#include <vector>

namespace vimbrel {
namespace {

constexpr const char* sessionManager = "org.gnome.SessionManager";
constexpr std::size_t mostInhibitors =
    64;  // A desktop has a handful; a service that lists more is not asked on.

BusMethod method(const char* member) {
  return {sessionManager, "/org/gnome/SessionManager", sessionManager, member};
}

std::vector<std::string> readPaths(BusMessage& reply) {
  std::vector<std::string> paths;
  if (!reply.enter('a', "o")) return paths;
  while (paths.size() < mostInhibitors) {
    auto path = reply.readObjectPath();
    if (!path) break;
    paths.push_back(std::move(*path));
  }
  return paths;
}

}  // namespace

/// One look through the session manager's inhibitors, each of which is an object that must be asked whose it
/// is and what it does.
struct GnomeSessionInhibitor::Search : std::enable_shared_from_this<Search> {
  Search(BusConnection& connection, Flag wanted, std::function<void(ReadBack)> callback)
      : bus(connection), flag(wanted), done(std::move(callback)) {}

  BusConnection& bus;
  const Flag flag;
  std::function<void(ReadBack)> done;
  std::vector<std::string> paths;

  void next() {
    if (paths.empty()) return done(ReadBack::unlisted);
    const auto path = std::move(paths.back());
    paths.pop_back();
    const std::string inhibitor = "org.gnome.SessionManager.Inhibitor";
    bus.call({sessionManager, path, inhibitor, "GetAppId"}, {},
             [self = shared_from_this(), path, inhibitor](BusReply reply) {
               // One that went away meanwhile is somebody else's.
               if (!reply || reply->readString() != inhibitorName) return self->next();
               self->bus.call({sessionManager, path, inhibitor, "GetFlags"}, {}, [self](BusReply flags) {
                 const bool ours = flags && flags->readUnsigned() == static_cast<std::uint32_t>(self->flag);
                 if (ours) return self->done(ReadBack::confirmed);
                 self->next();
               });
             });
  }
};

GnomeSessionInhibitor::GnomeSessionInhibitor(Flag flag, std::shared_ptr<BusConnection> sessionBus,
                                             std::shared_ptr<TaskQueue> queue)
    : SleepInhibitor("gnome-session", sessionManager, std::move(sessionBus), std::move(queue)), flag_(flag) {}

void GnomeSessionInhibitor::take(const std::string& reason, unsigned round) {
  auto answered = [weak = weak_from_this(), round](BusReply reply) {
    const auto self = std::static_pointer_cast<GnomeSessionInhibitor>(weak.lock());
    if (!self || !self->awaits(round)) return;
    if (!reply) return self->answered(round, std::unexpected(std::move(reply.error())));
    self->cookie_ = reply->readUnsigned();
    if (!self->cookie_)
      return self->answered(round, std::unexpected(BusError{"Malformed", "it answered without a cookie"}));
    self->answered(round, {});
  };
  constexpr std::uint32_t noWindow = 0;
  bus().call(method("Inhibit"), {inhibitorName, noWindow, reason, static_cast<std::uint32_t>(flag_)},
             std::move(answered), BusConnection::noTimeout);
}

void GnomeSessionInhibitor::readBack(std::function<void(ReadBack)> done) {
  auto search = std::make_shared<Search>(bus(), flag_, std::move(done));
  bus().call(method("GetInhibitors"), {}, [search](BusReply reply) {
    if (!reply) return search->done(ReadBack::notSupported);
    search->paths = readPaths(*reply);
    search->next();
  });
}

void GnomeSessionInhibitor::giveBack() {
  if (const auto cookie = std::exchange(cookie_, std::nullopt)) bus().send(method("Uninhibit"), {*cookie});
}

bool GnomeSessionInhibitor::outlivesService() {
  cookie_.reset();
  return false;
}

}  // namespace vimbrel
