// SPDX-License-Identifier: Apache-2.0
#include "Simulation/ControlPeers.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <nlohmann/json.hpp>

#include "Control/ControlServer.h"
#include "Control/DeepHoldMethods.h"
#include "Control/HistoryMethods.h"
#include "Control/ProtectionMethods.h"
#include "Control/SettingsMethods.h"
#include "Control/StatusMethods.h"

namespace vimbrel {

using namespace std::chrono_literals;
using nlohmann::json;
using std::chrono::nanoseconds;

namespace {

/// A state is sent at most this often, and a follower reads once a second.
constexpr nanoseconds longestAnswer = 2s;
constexpr auto comparisonInterval = 30s;
const ControlLimits limits;
/// What tells a follower the state.
constexpr std::string_view stateBegin = R"({"jsonrpc":"2.0","method":"state",)";

std::string request(const std::string& method, const json& params = json::object()) {
  return json{{"jsonrpc", "2.0"}, {"id", 1}, {"method", method}, {"params", params}}.dump() + "\n";
}

/// The state without what changes by the mere passing of time.
json comparable(json state) {
  state.erase("elapsedProtectionSeconds");
  return state;
}

std::string firstDifference(const json& told, const json& is) {
  for (const auto& [key, value] : is.items()) {
    if (!told.contains(key)) return key + " is missing";
    if (told[key] != value) return key + " is " + value.dump() + ", told was " + told[key].dump();
  }
  return "something that is gone";
}

}  // namespace

struct ControlPeers::Peer {
  Kind kind = Kind::asks;
  Fd socket;
  nanoseconds since{0};
  std::string incoming;
  bool isAnswered = false;
  bool isRefused = false;
  bool isGone = false;
  std::string stateLine;  ///< what a follower was told last, parsed only to be compared
};

/// What serves one launch.
struct ControlPeers::Service {
  Service(SimulatedApplication& world, std::shared_ptr<TaskQueue> queue)
      : platform(world.machine().services()),
        application{.coordinator = world.app().coordinator(),
                    .platform = platform,
                    .clock = world.time(),
                    .version = "1",
                    .deepHold = &world.app().deepHold(),
                    .commandHolds = &world.app().commandHolds(),
                    .presentation = &world.app().presentation(),
                    .usage = world.app().usage().get(),
                    .history = &world.app().history()},
        server(std::move(queue), world.time(), limits) {
    tokens[0] = addStatusMethods(server, application);
    tokens[1] = addDeepHoldMethods(server, application);
    addSettingsMethods(server, application);
    addProtectionMethods(server, application);
    addHistoryMethods(server, application);
    platform.assertions->onMechanismsChanged = [this] {
      application.coordinator.scheduleEvaluation();
      server.stateDidChange();
    };
  }

  PlatformServices platform;
  ControlledApplication application;
  ControlServer server;
  std::array<Token, 2> tokens;
  /// Samples of the state, a second apart, and whether some follower was told otherwise at each.
  nanoseconds comparedAt{0};
  nanoseconds sampledAt{0};
  int samples = 0;
  json sample;
};

ControlPeers::ControlPeers(SimulatedApplication& application)
    : application_(application), queue_(std::make_shared<DescriptorQueue>(application.time().mainQueue())) {}

ControlPeers::~ControlPeers() = default;

nanoseconds ControlPeers::uptime() { return application_.time().monotonic(); }

void ControlPeers::broken(std::string what) {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(uptime()).count();
  if (!violation_) violation_ = "after " + std::to_string(ms) + " ms: " + std::move(what);
}

void ControlPeers::serve() {
  service_ = std::make_unique<Service>(application_, queue_);
  servingSince_ = uptime();
  if (const auto started = service_->server.start(directory_.file("run/control.sock")); !started) {
    return broken("the control socket cannot be served: " + started.error().text());
  }
  // A desktop's surface is always there.
  say(connect(Kind::follows), request("subscribe"));
}

void ControlPeers::end() {
  peers_.clear();
  service_.reset();
}

void ControlPeers::everybodyLeaves() { peers_.clear(); }

std::size_t ControlPeers::connectionCount() const {
  return service_ ? service_->server.connectionCount() : 0;
}

ControlPeers::Peer* ControlPeers::connect(Kind kind) {
  Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, directory_.file("run/control.sock").c_str(), sizeof address.sun_path - 1);
  // As many wait as may: this one gives up.
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
    return nullptr;
  auto& peer = peers_.emplace_back();
  peer.kind = kind;
  peer.socket = std::move(socket);
  peer.since = uptime();
  return &peer;
}

void ControlPeers::say(Peer* peer, const std::string& text) {
  // What does not fit is as lost as with a peer that crashed.
  if (peer != nullptr) (void)::send(peer->socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
}

std::string ControlPeers::happen(const Draw& draw) {
  switch (draw(8)) {
    case 0:
    case 1: {
      static constexpr std::array questions{"status",        "sessions", "why",
                                            "settings.list", "history",  "nonsense"};
      const auto* question = questions.at(static_cast<std::size_t>(draw(std::size(questions))));
      say(connect(Kind::asks), request(question));
      return std::string("a client asks for ") + question;
    }
    case 2:
    case 3:
      say(connect(Kind::follows), request("subscribe"));
      return "a client follows the state";
    case 4: {
      auto* peer = connect(Kind::neverReads);
      for (int i = 1 + draw(40); i > 0; --i) say(peer, request(i % 2 == 0 ? "status" : "subscribe"));
      return "a client asks and never reads";
    }
    case 5:
      say(connect(Kind::stopsMidLine), request("status").substr(0, static_cast<std::size_t>(1 + draw(30))));
      return "a client stops in the middle of a line";
    case 6: {
      const auto question =
          draw(2) == 0
              ? request("pause", {{"seconds", 1 + draw(300)}})
              : request("holdWhile", {{"command", "make"}, {"seconds", 1 + draw(100)}, {"lid", false}});
      say(connect(Kind::asks), question);
      if (!peers_.empty() && draw(2) == 0) peers_.pop_back();  // It hangs up before the answer.
      return "a client changes something: " + question.substr(0, question.size() - 1);
    }
    default: {
      const int crowd = 1 + draw(100);
      for (int i = 0; i < crowd; ++i) {
        say(connect(Kind::neverReads), i % 3 == 0 ? request("subscribe") : "{");
      }
      return "a crowd of " + std::to_string(crowd) + " clients";
    }
  }
}

void ControlPeers::take(Peer& peer, const std::string& line) {
  if (line.starts_with(stateBegin)) {
    peer.stateLine = line;
    service_->samples = 0;  // The state changed, though it may stand again as it did.
    return;
  }
  const auto message = json::parse(line, nullptr, false);
  if (!message.is_object() || message.value("jsonrpc", "") != "2.0") {
    return broken("a client is sent what is no message: " + line);
  }
  if (message["id"].is_null()) {
    peer.isRefused = true;  // One of too many.
  } else {
    peer.isAnswered = true;
  }
}

bool ControlPeers::read(Peer& peer) {
  char buffer[65536];
  bool cameAny = false;
  for (;;) {
    const auto count = ::recv(peer.socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    if (count < 0) break;
    if (count == 0) {
      peer.isGone = true;
      break;
    }
    cameAny = true;
    peer.incoming.append(buffer, static_cast<std::size_t>(count));
    for (auto end = peer.incoming.find('\n'); end != std::string::npos; end = peer.incoming.find('\n')) {
      take(peer, peer.incoming.substr(0, end));
      peer.incoming.erase(0, end + 1);
    }
  }
  return cameAny;
}

bool ControlPeers::look() {
  if (!service_) return false;
  bool cameAny = false;
  for (auto& peer : peers_) {
    const auto age = uptime() - peer.since;
    if (peer.kind == Kind::asks || peer.kind == Kind::follows) {
      cameAny |= read(peer);
      if (peer.isRefused) peer.isGone = true;
      if (peer.isGone && !peer.isRefused && !(peer.kind == Kind::asks && peer.isAnswered)) {
        broken("a client that reads is hung up on");
      }
      if (!cameAny && !peer.isAnswered && !peer.isRefused && age > longestAnswer) {
        broken("a client waits for its answer");
      }
      if (peer.kind == Kind::asks && peer.isAnswered) peer.isGone = true;  // It has what it wanted.
    } else if (peer.kind == Kind::stopsMidLine) {
      pollfd asked{peer.socket.get(), 0, 0};
      peer.isGone = ::poll(&asked, 1, 0) == 1 && (asked.revents & POLLHUP) != 0;
      if (!peer.isGone && age > limits.idle + limits.checkInterval + 2s) broken("a silent client is kept");
    } else if (age > 10min) {
      peer.isGone = true;
    }
  }
  peers_.remove_if([](const Peer& peer) { return peer.isGone; });
  poll();
  if (connectionCount() > limits.maximumConnections)
    broken("connections to the control socket have no bound");
  if (!cameAny) compareFollowers();
  return cameAny;
}

/// A state on its way is not compared: only one that stood for three seconds, by the end of which everybody
/// who reads must have been told.
void ControlPeers::compareFollowers() {
  auto& service = *service_;
  if (service.samples == 0 && uptime() - service.comparedAt < comparisonInterval) return;
  if (service.samples > 0 && uptime() - service.sampledAt < 1s) return;
  const auto isTold = [](const Peer& peer) { return peer.kind == Kind::follows && !peer.stateLine.empty(); };
  const bool isFollowed = std::ranges::any_of(peers_, isTold);
  if (!isFollowed) return;
  auto state = comparable(statusDocument(service.application));
  const bool isSame = service.samples == 0 || service.sample == state;
  service.sample = std::move(state);
  service.sampledAt = service.comparedAt = uptime();
  service.samples = isSame ? service.samples + 1 : 0;
  if (service.samples < 4) return;
  service.samples = 0;
  const std::string* right = nullptr;  // Every follower is sent the same line, of megabytes in some storms.
  for (const auto& peer : peers_) {
    if (!isTold(peer) || uptime() - peer.since < 5s) continue;
    ++comparisons_;
    if (right != nullptr && *right == peer.stateLine) continue;
    const auto message = json::parse(peer.stateLine, nullptr, false);
    if (!message.is_object()) return broken("a follower is sent what is no message: " + peer.stateLine);
    const auto told = comparable(message["params"]);
    if (told != service.sample) {
      return broken("a follower was told another state: " + firstDifference(told, service.sample));
    }
    right = &peer.stateLine;
  }
}

}  // namespace vimbrel
