// SPDX-License-Identifier: Apache-2.0
#include "Control/AgentMethods.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <list>
#include <thread>
#include <utility>

#include "Control/AgentDocuments.h"
#include "Control/RpcResult.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"
#include "Support/TryThread.h"

namespace vimbrel {

using nlohmann::json;

namespace {

constexpr std::size_t maximumTrialIdBytes = 200;

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

/// The applications that ran at one moment.
class KnownApplications final : public RunningApplications {
 public:
  explicit KnownApplications(std::vector<RunningApplication> applications)
      : applications_(std::move(applications)) {}
  [[nodiscard]] std::vector<RunningApplication> list() override { return applications_; }

 private:
  const std::vector<RunningApplication> applications_;
};

/// Work that may take seconds, a few at a time. Main queue.
class SlowWork {
 public:
  static constexpr std::size_t maximumThreads = 4;

  /// False when too much is being done already, here or in the whole system.
  bool begin(std::function<void()> work) {
    std::erase_if(running_, [](const Running& each) { return each.isDone.load(); });
    if (running_.size() == maximumThreads) return false;
    auto& running = running_.emplace_back();
    auto thread = tryThread([work = std::move(work), &running] {
      work();
      running.isDone = true;
    });
    if (!thread) {
      running_.pop_back();
      return false;
    }
    running.thread = std::move(*thread);
    return true;
  }

 private:
  struct Running {
    std::atomic<bool> isDone = false;
    std::jthread thread;
  };
  std::list<Running> running_;
};

/// The machine for the user by the caller's environment, as far as it was given: a shell knows places that
/// the session's services do not.
std::expected<AgentEnvironment, std::string> environmentOf(const json& params) {
  const auto given = params.find("environment");
  const bool isGiven = given != params.end() && !given->is_null();
  if (isGiven && !given->is_object()) return std::unexpected("\"environment\" is an object of texts");
  std::string problem;
  auto environment = AgentEnvironment::fromVariables([&](const char* name) -> std::optional<std::string> {
    if (isGiven) {
      const auto member = given->find(name);
      if (member == given->end() || member->is_null()) return std::nullopt;
      if (!member->is_string()) {
        problem = "\"environment\" is an object of texts";
        return std::nullopt;
      }
      return member->get<std::string>();
    }
    const char* value = std::getenv(name);
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
  });
  if (!problem.empty()) return std::unexpected(problem);
  return environment;
}

std::map<AgentType, LastHookEvent> lastEventsOf(const ControlledApplication& application) {
  return application.lastHookEvents == nullptr ? std::map<AgentType, LastHookEvent>{}
                                               : application.lastHookEvents->all();
}

RpcResult setup(const json& params, const std::string& relayPath) {
  StrictJsonObject fields(params, "agents.setup");
  const auto agent = agentTypeFromRawValue(fields.string("agent"));
  RelayCall relay{fields.optionalString("relayPath").value_or(relayPath),
                  fields.optionalString("socket").value_or("")};
  if (fields.error()) return invalid(*fields.error());
  auto environment = environmentOf(params);
  if (!environment) return invalid(environment.error());
  const AgentRegistry registry(std::move(*environment));
  const auto adapter = agent ? registry.adapter(*agent) : nullptr;
  if (!adapter) return invalid(sentence("there is no such agent"));
  if (relay.path.empty()) {
    return std::unexpected(
        RpcError{RpcFault::operationFailed, sentence("vimbrel-relay is not installed beside this Vimbrel")});
  }
  return json(agentSetupDocument(*adapter, relay));
}

RpcResult beginTrial(const ControlledApplication& application, const json& params, RpcPeer& peer) {
  StrictJsonObject fields(params, "agents.trial");
  const auto session = fields.string("session");
  if (fields.error()) return invalid(*fields.error());
  if (session.empty() || session.size() > maximumTrialIdBytes) {
    return invalid("\"session\" must have 1 to 200 bytes");
  }
  const auto agents = application.coordinator.parts().agentCoordinator;
  if (agents->sessions().find(session)) return invalid("there is such a session already");
  auto* events = application.lastHookEvents;
  if (events != nullptr) events->beginTrial(session);
  // However the one who tries ends: nothing of it stays, and nothing is held for it.
  peer.keep(Token([agents, events, session] {
    if (events != nullptr) events->endTrial(session);
    agents->removeSession(session);
  }));
  return json::object();
}

}  // namespace

std::shared_ptr<void> addAgentMethods(ControlServer& server, const ControlledApplication& application,
                                      const std::shared_ptr<TaskQueue>& mainQueue, std::string relayPath) {
  auto& methods = server.methods();
  const auto slowWork = std::make_shared<SlowWork>();
  methods.addLater(
      "agents", [application, mainQueue, weak = std::weak_ptr(slowWork)](const json& params, RpcReply reply) {
        auto environment = environmentOf(params);
        if (!environment) return reply(invalid(environment.error()));
        environment->runningApplications =
            std::make_shared<KnownApplications>(application.platform.runningApplications->list());
        auto held = std::make_shared<RpcReply>(std::move(reply));
        const auto detect = [mainQueue, held, environment = std::move(*environment),
                             lastEvents = lastEventsOf(application)]() mutable {
          json result{{"agents", json(agentsDocument(AgentRegistry(environment), lastEvents))}};
          // The reply is given, and given up, on the main queue.
          mainQueue->post([held = std::move(held), result = std::move(result)] { (*held)(result); });
        };
        const auto work = weak.lock();
        if (!work || !work->begin(detect)) {
          (*held)(std::unexpected(RpcError{RpcFault::operationFailed, "too many detections run already"}));
        }
      });
  methods.add("agents.setup", [relayPath = std::move(relayPath)](const json& params) -> RpcResult {
    return setup(params, relayPath);
  });
  methods.addForPeer("agents.trial", [application](const json& params, RpcPeer& peer) -> RpcResult {
    return beginTrial(application, params, peer);
  });
  return slowWork;
}

}  // namespace vimbrel
