// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/BusConnection.h"

#include <poll.h>
#include <sys/stat.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds longestPause{30};
constexpr std::uint64_t never = UINT64_MAX;

BusError systemError(int code) { return {"System.Error", std::strerror(std::abs(code))}; }

/// Opens the session's bus where the environment names it, else where systemd puts it for this user: a
/// process that was started over SSH or by a timer still finds the desktop.
int openSessionBus(sd_bus** bus) {
  if (std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr || std::getenv("XDG_RUNTIME_DIR") != nullptr) {
    return sd_bus_open_user(bus);
  }
  const std::string path = "/run/user/" + std::to_string(::getuid()) + "/bus";
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 || status.st_uid != ::getuid()) return -ENOENT;
  sd_bus* created = nullptr;
  if (const int result = sd_bus_new(&created); result < 0) return result;
  int result = sd_bus_set_address(created, ("unix:path=" + path).c_str());
  if (result >= 0) result = sd_bus_set_bus_client(created, 1);
  if (result >= 0) result = sd_bus_start(created);
  if (result < 0) {
    sd_bus_unref(created);
    return result;
  }
  *bus = created;
  return 0;
}

struct SlotDeleter {
  void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
using Slot = std::unique_ptr<sd_bus_slot, SlotDeleter>;

struct MessageDeleter {
  void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, MessageDeleter>;

}  // namespace

struct BusConnection::Impl : std::enable_shared_from_this<Impl> {
  struct Pending {
    Impl* owner;
    std::uint64_t id;
    std::function<void(BusReply)> done;
    Slot slot;
  };
  struct Name {
    std::optional<std::string> owner;
    std::map<std::uint64_t, std::function<void(const std::string&)>> watchers;
    Slot slot;
    Impl* impl = nullptr;
    std::string text;
  };
  struct Subscription {
    BusMethod signal;
    std::function<void(BusMessage)> handler;
    Slot slot;
  };

  Impl(BusKind busKind, std::shared_ptr<TaskQueue> taskQueue) : kind(busKind), queue(std::move(taskQueue)) {}

  const BusKind kind;
  const std::shared_ptr<TaskQueue> queue;
  sd_bus* bus = nullptr;
  std::string failure;
  std::uint64_t nextId = 1;
  std::map<std::uint64_t, std::unique_ptr<Pending>> pending;
  std::map<std::string, std::shared_ptr<Name>> names;
  std::map<std::uint64_t, std::shared_ptr<Subscription>> subscriptions;
  std::chrono::seconds pause{1};
  Token readWatch, writeWatch, timer, reconnection;
  bool writing = false;
  std::uint64_t armedFor = never;

  void connect();
  void close();
  void lose(int code);
  void pump();
  void arm();
  void follow(Name& name);
  void subscribe(Subscription& subscription) const;
  void setOwner(Name& name, const std::string& owner);
  void call(const BusMethod& method, const std::vector<BusArgument>& arguments,
            std::function<void(BusReply)> done, std::chrono::milliseconds timeout);
  [[nodiscard]] Message compose(const BusMethod& method, const std::vector<BusArgument>& arguments,
                                int& result) const;
};

void BusConnection::Impl::connect() {
  reconnection.reset();
  const int result = kind == BusKind::system ? sd_bus_open_system(&bus) : openSessionBus(&bus);
  if (result < 0) {
    bus = nullptr;
    lose(result);
    return;
  }
  failure.clear();
  readWatch = queue->watchReadable(sd_bus_get_fd(bus), [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->pump();
  });
  for (auto& [text, name] : names) follow(*name);
  for (auto& [id, subscription] : subscriptions) subscribe(*subscription);
  arm();
}

void BusConnection::Impl::close() {
  readWatch.reset();
  writeWatch.reset();
  timer.reset();
  writing = false;
  armedFor = never;
  for (auto& [text, name] : names) name->slot.reset();
  for (auto& [id, subscription] : subscriptions) subscription->slot.reset();
  for (auto& [id, entry] : pending) entry->slot.reset();
  if (auto* old = std::exchange(bus, nullptr)) sd_bus_flush_close_unref(old);
}

/// The connection is gone or could not be made: everybody learns it, and it is tried again later.
void BusConnection::Impl::lose(int code) {
  const auto keep = shared_from_this();
  close();
  failure = kind == BusKind::system ? sentence("no system bus: %1", {std::strerror(std::abs(code))})
                                    : sentence("no session bus: %1", {std::strerror(std::abs(code))});
  for (auto& [id, entry] : std::exchange(pending, {})) {
    entry->done(std::unexpected(BusError{"org.freedesktop.DBus.Error.Disconnected", failure}));
  }
  const auto known = names;  // Watchers may come and go meanwhile.
  for (const auto& [text, name] : known) setOwner(*name, "");
  reconnection = queue->every(pause, pause, TimerPrecision::shared, [weak = weak_from_this()] {
    if (const auto self = weak.lock()) self->connect();
  });
  pause = std::min<std::chrono::seconds>(pause * 2, longestPause);
}

void BusConnection::Impl::pump() {
  const auto keep = shared_from_this();
  while (bus != nullptr) {
    const int result = sd_bus_process(bus, nullptr);
    if (result < 0) return lose(result);
    if (result == 0) break;
    if (sd_bus_is_open(bus) <= 0) return lose(ENOTCONN);
  }
  if (bus != nullptr && sd_bus_is_ready(bus) > 0) pause = 1s;
  arm();
}

/// Waits for what sd-bus waits for: to write when it has something left, and for its next time-out.
void BusConnection::Impl::arm() {
  if (bus == nullptr) return;
  if ((sd_bus_get_events(bus) & POLLOUT) != 0 && !writing) {
    writing = true;
    writeWatch = queue->onceWritable(sd_bus_get_fd(bus), [weak = weak_from_this()] {
      const auto self = weak.lock();
      if (!self) return;
      self->writing = false;
      self->pump();
    });
  }
  std::uint64_t due = never;
  if (sd_bus_get_timeout(bus, &due) < 0) due = never;
  if (due == armedFor) return;
  armedFor = due;
  timer.reset();
  if (due == never) return;
  const auto now =
      std::chrono::duration_cast<std::chrono::microseconds>(SteadyClock::now().time_since_epoch());
  const auto left = std::chrono::microseconds(due) - now;
  timer = queue->after(std::max<std::chrono::nanoseconds>(left, 0ns), [weak = weak_from_this()] {
    const auto self = weak.lock();
    if (!self) return;
    self->armedFor = never;
    self->pump();
  });
}

Message BusConnection::Impl::compose(const BusMethod& method, const std::vector<BusArgument>& arguments,
                                     int& result) const {
  if (bus == nullptr) {
    result = -ENOTCONN;
    return nullptr;
  }
  sd_bus_message* raw = nullptr;
  result = sd_bus_message_new_method_call(bus, &raw, method.service.c_str(), method.path.c_str(),
                                          method.interface.c_str(), method.member.c_str());
  Message message(raw);
  if (result >= 0) result = sd_bus_message_set_auto_start(raw, method.mayStartService ? 1 : 0);
  for (const auto& argument : arguments) {
    if (result >= 0) result = appendArgument(raw, argument);
  }
  return message;
}

void BusConnection::Impl::call(const BusMethod& method, const std::vector<BusArgument>& arguments,
                               std::function<void(BusReply)> done, std::chrono::milliseconds timeout) {
  int result = 0;
  const auto message = compose(method, arguments, result);
  if (result < 0) {
    done(std::unexpected(bus == nullptr ? BusError{"org.freedesktop.DBus.Error.Disconnected", failure}
                                        : systemError(result)));
    return;
  }
  auto entry = std::make_unique<Pending>(Pending{this, nextId++, std::move(done), nullptr});
  sd_bus_slot* slot = nullptr;
  const auto answered = [](sd_bus_message* reply, void* data, sd_bus_error*) {
    const auto* request = static_cast<Pending*>(data);
    auto& impl = *request->owner;
    const auto node = impl.pending.extract(request->id);
    const auto& callback = node.mapped()->done;
    if (const auto* error = sd_bus_message_get_error(reply)) {
      callback(std::unexpected(BusError{error->name, error->message ? error->message : error->name}));
    } else {
      callback(BusMessage(reply));
    }
    return 0;
  };
  const auto limit =
      timeout == noTimeout ? never : static_cast<std::uint64_t>(std::chrono::microseconds(timeout).count());
  result = sd_bus_call_async(bus, &slot, message.get(), answered, entry.get(), limit);
  if (result < 0) {
    entry->done(std::unexpected(systemError(result)));
    return;
  }
  entry->slot.reset(slot);
  pending.emplace(entry->id, std::move(entry));
  arm();
}

void BusConnection::Impl::setOwner(Name& name, const std::string& owner) {
  if (name.owner == owner) return;
  name.owner = owner;
  const auto watchers = name.watchers;
  for (const auto& [id, watcher] : watchers) watcher(owner);
}

void BusConnection::Impl::follow(Name& name) {
  name.impl = this;
  const std::string rule =
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
      name.text + "'";
  sd_bus_slot* slot = nullptr;
  const auto changed = [](sd_bus_message* message, void* data, sd_bus_error*) {
    auto& followed = *static_cast<Name*>(data);
    const auto keep = followed.impl->shared_from_this();
    BusMessage reader(message);
    const auto text = reader.readString();
    const auto before = reader.readString();
    const auto after = reader.readString();
    if (text != followed.text || !after) return 0;
    // A service that was replaced without a gap lost what its predecessor held.
    if (before && !before->empty() && !after->empty()) keep->setOwner(followed, "");
    keep->setOwner(followed, *after);
    return 0;
  };
  if (sd_bus_add_match_async(bus, &slot, rule.c_str(), changed, nullptr, &name) >= 0) name.slot.reset(slot);
  call(
      {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner"}, {name.text},
      [weak = weak_from_this(), text = name.text](BusReply reply) {
        const auto self = weak.lock();
        if (!self || self->bus == nullptr) return;
        const auto found = self->names.find(text);
        if (found == self->names.end()) return;
        const auto followed = found->second;
        self->setOwner(*followed, reply ? reply->readString().value_or("") : "");
      },
      replyTimeout);
}

void BusConnection::Impl::subscribe(Subscription& subscription) const {
  const auto& signal = subscription.signal;
  const auto arrived = [](sd_bus_message* message, void* data, sd_bus_error*) {
    const auto handler = static_cast<Subscription*>(data)->handler;
    handler(BusMessage(message));
    return 0;
  };
  sd_bus_slot* slot = nullptr;
  if (sd_bus_match_signal_async(bus, &slot, signal.service.c_str(),
                                signal.path.empty() ? nullptr : signal.path.c_str(), signal.interface.c_str(),
                                signal.member.c_str(), arrived, nullptr, &subscription) >= 0) {
    subscription.slot.reset(slot);
  }
}

BusConnection::BusConnection(BusKind kind, std::shared_ptr<TaskQueue> queue)
    : impl_(std::make_shared<Impl>(kind, std::move(queue))) {
  impl_->connect();
}

BusConnection::~BusConnection() {
  impl_->reconnection.reset();
  impl_->pending.clear();
  impl_->close();
}

void BusConnection::call(const BusMethod& method, const std::vector<BusArgument>& arguments,
                         std::function<void(BusReply)> done, std::chrono::milliseconds timeout) {
  impl_->call(method, arguments, std::move(done), timeout);
}

void BusConnection::send(const BusMethod& method, const std::vector<BusArgument>& arguments) {
  int result = 0;
  const auto message = impl_->compose(method, arguments, result);
  if (result < 0) return;  // Without a connection there is nobody to tell.
  sd_bus_message_set_expect_reply(message.get(), 0);
  sd_bus_send(impl_->bus, message.get(), nullptr);
  impl_->arm();
}

void BusConnection::getProperty(const std::string& service, const std::string& path,
                                const std::string& interface, const std::string& property,
                                std::function<void(BusReply)> done) {
  call({service, path, "org.freedesktop.DBus.Properties", "Get"}, {interface, property}, std::move(done));
}

Token BusConnection::onSignal(BusMethod signal, std::function<void()> handler) {
  return onSignalWith(std::move(signal),
                      [handler = std::move(handler)](const BusMessage& /*message*/) { handler(); });
}

Token BusConnection::onSignalWith(BusMethod signal, std::function<void(BusMessage)> handler) {
  const auto id = impl_->nextId++;
  auto subscription = std::make_shared<Impl::Subscription>(
      Impl::Subscription{std::move(signal), std::move(handler), nullptr});
  impl_->subscriptions.emplace(id, subscription);
  if (impl_->bus != nullptr) impl_->subscribe(*subscription);
  impl_->arm();
  return Token{[weak = std::weak_ptr(impl_), id] {
    if (const auto impl = weak.lock()) impl->subscriptions.erase(id);
  }};
}

Token BusConnection::watchName(const std::string& name, std::function<void(const std::string&)> changed) {
  auto& followed = impl_->names[name];
  const bool isNew = followed == nullptr;
  if (isNew) {
    followed = std::make_shared<Impl::Name>();
    followed->text = name;
    if (impl_->bus == nullptr) followed->owner = "";
  }
  const auto id = impl_->nextId++;
  followed->watchers.emplace(id, std::move(changed));
  if (isNew && impl_->bus != nullptr) {
    impl_->follow(*followed);
    impl_->arm();
  } else if (followed->owner) {
    impl_->queue->post([weak = std::weak_ptr(followed), id] {
      const auto known = weak.lock();
      if (!known || !known->owner || !known->watchers.contains(id)) return;
      const auto watcher = known->watchers.at(id);
      watcher(*known->owner);
    });
  }
  // The name stays followed: those that are watched once are watched for the process's lifetime.
  return Token{[weak = std::weak_ptr(followed), id] {
    if (const auto known = weak.lock()) known->watchers.erase(id);
  }};
}

std::optional<std::string> BusConnection::ownerOf(const std::string& name) const {
  const auto found = impl_->names.find(name);
  return found == impl_->names.end() ? std::nullopt : found->second->owner;
}

bool BusConnection::isConnected() const { return impl_->bus != nullptr; }

std::string BusConnection::failure() const { return impl_->failure; }

bool BusConnection::waitFor(std::initializer_list<BusConnection*> connections,
                            const std::function<bool()>& done, SteadyClock::time_point deadline) {
  for (;;) {
    for (auto* connection : connections) connection->impl_->pump();
    if (done()) return true;
    const auto now = SteadyClock::now();
    if (now >= deadline) return false;
    auto wake = deadline;
    std::vector<pollfd> descriptors;
    for (auto* connection : connections) {
      auto* bus = connection->impl_->bus;
      if (bus == nullptr) continue;
      descriptors.push_back({sd_bus_get_fd(bus), static_cast<short>(sd_bus_get_events(bus)), 0});
      std::uint64_t due = never;
      if (sd_bus_get_timeout(bus, &due) >= 0 && due != never) {
        wake = std::min(wake, SteadyClock::time_point(std::chrono::microseconds(due)));
      }
    }
    // Nothing but an answer could end the wait, and nobody is left to give one.
    if (descriptors.empty()) return false;
    const auto pause = std::chrono::ceil<std::chrono::milliseconds>(wake - now).count();
    ::poll(descriptors.data(), descriptors.size(), static_cast<int>(std::clamp<long long>(pause, 0, 1000)));
  }
}

}  // namespace vimbrel
