// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Linux/BusArgument.h"
#include "Platform/Linux/BusError.h"
#include "Platform/Linux/BusMessage.h"
#include "Support/TaskQueue.h"

namespace vimbrel {

enum class BusKind : std::uint8_t { system, session };

/// One method of one object of one service.
struct BusMethod {
  std::string service;
  std::string path;
  std::string interface;
  std::string member;
  /// Whether the bus may start the service for the call. Most must not: one that is not running is not one of
  /// this desktop's.
  bool mayStartService = false;
};

using BusReply = std::expected<BusMessage, BusError>;

/// A connection to the system's or the session's message bus. It connects by itself, again and again with
/// growing pauses of up to 30 seconds while there is no bus, and restores its subscriptions each time. It
/// causes no wakeup while nothing happens on it. Queue: the one it was given, always.
///
/// Callbacks run from the queue, or from inside `waitFor` when somebody waits: they must note what they learn
/// and post anything further.
class BusConnection {
 public:
  static constexpr std::chrono::milliseconds replyTimeout{5000};
  /// For calls whose answer counts however late it comes.
  static constexpr std::chrono::milliseconds noTimeout = std::chrono::milliseconds::max();

  BusConnection(BusKind kind, std::shared_ptr<TaskQueue> queue);
  ~BusConnection();
  BusConnection(const BusConnection&) = delete;
  BusConnection& operator=(const BusConnection&) = delete;

  /// Calls a method. `done` is called once, never inline unless there is no
  /// connection: with the answer, with its error, or when the time-out, the end of the service's process or
  /// the connection's end came first. An answer that comes after the time-out is lost.
  void call(const BusMethod& method, const std::vector<BusArgument>& arguments,
            std::function<void(BusReply)> done, std::chrono::milliseconds timeout = replyTimeout);
  /// Calls a method whose answer nobody needs.
  void send(const BusMethod& method, const std::vector<BusArgument>& arguments);
  /// Calls Get of org.freedesktop.DBus.Properties; the answer holds one variant.
  void getProperty(const std::string& service, const std::string& path, const std::string& interface,
                   const std::string& property, std::function<void(BusReply)> done);

  /// Calls `handler` for every such signal of the service, for as long as the token lives.
  [[nodiscard]] Token onSignal(BusMethod signal, std::function<void()> handler);
  /// The same with the signal's contents. An empty `path` stands for every object of the service.
  [[nodiscard]] Token onSignalWith(BusMethod signal, std::function<void(BusMessage)> handler);

  /// Follows the owner of a well-known name. `changed` is called with the unique name of the owner, empty
  /// when nobody owns it, first when that is known and then whenever it changes.
  [[nodiscard]] Token watchName(const std::string& name, std::function<void(const std::string&)> changed);
  /// The owner of a watched name; absent as long as it is not known.
  [[nodiscard]] std::optional<std::string> ownerOf(const std::string& name) const;

  [[nodiscard]] bool isConnected() const;
  /// Why there is no connection; empty when there is one.
  [[nodiscard]] std::string failure() const;

  /// Serves the given connections, and nothing else of the queue, until `done` holds or the time is up;
  /// returns what `done` then says.
  static bool waitFor(std::initializer_list<BusConnection*> connections, const std::function<bool()>& done,
                      std::chrono::steady_clock::time_point deadline);

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace vimbrel
