// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "Simulation/DescriptorQueue.h"
#include "Simulation/SimulatedApplication.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// The control socket of a simulated application, and who talks to it: peers that ask and wait, that follow
/// the state, that ask and never read, that stop in the middle of a line, that hang up at once, and crowds of
/// these. The server and its connections are the real ones, on virtual time.
///
/// Promised: whoever reads is answered within two seconds of the application's life, a follower is not
/// dropped and is told the state as it is, connections are bounded, and one that stays silent is dropped.
class ControlPeers {
 public:
  /// Draws a number from 0 to below its argument.
  using Draw = std::function<int(int)>;

  explicit ControlPeers(SimulatedApplication& application);
  ~ControlPeers();

  /// Serves the application that was just launched.
  void serve();
  /// The server goes, as with its process; every connection ends.
  void end();
  [[nodiscard]] bool isServing() const { return service_ != nullptr; }

  /// One peer comes, or does what its kind does; what it was.
  std::string happen(const Draw& draw);
  /// Lets the server see what its peers did. To be called after every task.
  void poll() { queue_->poll(); }
  /// Time has passed: those that read do. True when something came, so that the server may have more to send
  /// now: nothing that reads is slower than what is sent.
  bool look();
  void everybodyLeaves();
  [[nodiscard]] std::size_t connectionCount() const;

  /// The first promise that was broken.
  [[nodiscard]] const std::optional<std::string>& violation() const { return violation_; }
  /// How often what a follower was told last was compared with the state as it stood.
  [[nodiscard]] std::uint64_t comparisons() const { return comparisons_; }

 private:
  enum class Kind { asks, follows, neverReads, stopsMidLine };
  struct Peer;
  struct Service;

  Peer* connect(Kind kind);
  static void say(Peer* peer, const std::string& text);
  bool read(Peer& peer);
  void take(Peer& peer, const std::string& line);
  void compareFollowers();
  void broken(std::string what);
  [[nodiscard]] std::chrono::nanoseconds uptime();

  SimulatedApplication& application_;
  TemporaryDirectory directory_;
  const std::shared_ptr<DescriptorQueue> queue_;
  std::unique_ptr<Service> service_;
  std::list<Peer> peers_;
  std::optional<std::string> violation_;
  std::chrono::nanoseconds servingSince_{0};
  std::uint64_t comparisons_ = 0;
};

}  // namespace vimbrel
