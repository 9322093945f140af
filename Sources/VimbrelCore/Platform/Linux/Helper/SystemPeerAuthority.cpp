// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/Helper/SystemPeerAuthority.h"

#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <list>
#include <map>
#include <utility>

#include "Support/Log.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr auto polkitTimeout = 800ms;  // A client waits a second for its answer.
constexpr auto keepAllowed = 10s;
constexpr std::size_t maximumQuestions = 32;
constexpr std::ptrdiff_t maximumQuestionsOfOneUser = 8;

bool isInGroup(const PeerCredentials& peer, int connection, gid_t group) {
  if (peer.gid == group) return true;
  std::array<gid_t, 1024> groups;
  socklen_t length = sizeof groups;
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &length) != 0) return false;
  const auto end = groups.begin() + static_cast<std::ptrdiff_t>(length / sizeof(gid_t));
  return std::find(groups.begin(), end, group) != end;
}

}  // namespace

struct SystemPeerAuthority::State : std::enable_shared_from_this<State> {
  struct Question {
    State* state = nullptr;
    PeerCredentials peer;
    bool inSocketGroup = false;
    Verdict verdict;
    sd_bus_slot* slot = nullptr;
    ~Question() { sd_bus_slot_unref(slot); }
  };
  using Questions = std::list<Question>;

  std::shared_ptr<TaskQueue> queue;
  std::string action;
  gid_t socketGroup = 0;
  Logger logger{"authority", "com.vimbrel.helper"};
  std::map<std::pair<pid_t, uid_t>, SteadyTime> allowedUntil;
  Questions questions;
  sd_bus* bus = nullptr;
  Token readable;
  Token writable;
  Token deadline;

  void answer(Question& question, std::optional<std::string> refusal) {
    auto verdict = std::move(question.verdict);
    if (!refusal) {
      allowedUntil[{question.peer.pid, question.peer.uid}] = std::chrono::steady_clock::now() + keepAllowed;
    }
    questions.remove_if([&](const Question& other) { return &other == &question; });
    verdict(std::move(refusal));
  }

  bool isStillAllowed(const PeerCredentials& peer) {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(allowedUntil, [&](const auto& entry) { return entry.second <= now; });
    return allowedUntil.contains({peer.pid, peer.uid});
  }

  void withoutPolkit(Question& question) {
    if (question.inSocketGroup) return answer(question, std::nullopt);
    answer(question, sentence("without polkit only root and the group that owns the socket may ask"));
  }

  static int onReply(sd_bus_message* reply, void* data, sd_bus_error* /*error*/) {
    auto& question = *static_cast<Question*>(data);
    auto& state = *question.state;
    if (const auto* error = sd_bus_message_get_error(reply)) {
      const bool absent = sd_bus_error_has_name(error, SD_BUS_ERROR_SERVICE_UNKNOWN) != 0 ||
                          sd_bus_error_has_name(error, SD_BUS_ERROR_NAME_HAS_NO_OWNER) != 0;
      if (absent) {
        state.withoutPolkit(question);
      } else {
        state.logger.error("polkit cannot decide on %s: %s", state.action.c_str(), error->message);
        state.answer(question, std::string("polkit cannot decide: ") + error->message);
      }
      return 0;
    }
    int allowed = 0;
    int challenge = 0;
    if (sd_bus_message_enter_container(reply, 'r', "bba{ss}") < 0 ||
        sd_bus_message_read(reply, "bb", &allowed, &challenge) < 0) {
      state.answer(question, sentence("polkit's answer cannot be read"));
    } else if (allowed != 0) {
      state.answer(question, std::nullopt);
    } else if (challenge != 0) {
      state.answer(question,
                   sentence("polkit asks for an administrator's authentication of %1 (this is not the active "
                            "local session)",
                            {state.action}));
    } else {
      state.answer(question, sentence("polkit does not allow %1 to this user", {state.action}));
    }
    return 0;
  }

  /// True when the question is on its way.
  bool send(Question& question) {
    if (bus == nullptr && sd_bus_open_system(&bus) < 0) return false;
    sd_bus_message* message = nullptr;
    // Start time 0: polkit finds it out. Flags 0: nobody is asked for a password once a second.
    const bool sent =
        sd_bus_message_new_method_call(bus, &message, "org.freedesktop.PolicyKit1",
                                       "/org/freedesktop/PolicyKit1/Authority",
                                       "org.freedesktop.PolicyKit1.Authority", "CheckAuthorization") >= 0 &&
        sd_bus_message_append(message, "(sa{sv})sa{ss}us", "unix-process", 3, "pid", "u",
                              static_cast<std::uint32_t>(question.peer.pid), "start-time", "t",
                              std::uint64_t{0}, "uid", "i", static_cast<std::int32_t>(question.peer.uid),
                              action.c_str(), 0, std::uint32_t{0}, "") >= 0 &&
        sd_bus_call_async(bus, &question.slot, message, &State::onReply, &question,
                          std::chrono::microseconds(polkitTimeout).count()) >= 0;
    sd_bus_message_unref(message);
    return sent;
  }

  /// The questions that were on their way go unanswered; the next one opens the bus again.
  void closeBus() {
    readable.reset();
    writable.reset();
    deadline.reset();
    bus = sd_bus_close_unref(bus);
    while (!questions.empty()) withoutPolkit(questions.front());
  }

  /// Lets the bus do what it can, and waits for its next need.
  void pump() {
    int code = 0;
    do {
      code = sd_bus_process(bus, nullptr);
    } while (code > 0);
    if (code < 0) return closeBus();
    // What runs later finds the connection as it is then; it may have been closed in between.
    const auto again = [weak = weak_from_this()] {
      if (const auto state = weak.lock(); state && state->bus != nullptr) state->pump();
    };
    if (!readable) readable = queue->watchReadable(sd_bus_get_fd(bus), again);
    if ((sd_bus_get_events(bus) & POLLOUT) != 0) writable = queue->onceWritable(sd_bus_get_fd(bus), again);
    deadline.reset();
    std::uint64_t due = 0;
    if (sd_bus_get_timeout(bus, &due) > 0 && due != UINT64_MAX) {
      timespec now{};
      ::clock_gettime(CLOCK_MONOTONIC, &now);
      const auto at = std::chrono::microseconds(due);
      const auto elapsed = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
      deadline = queue->after(std::max<std::chrono::nanoseconds>(at - elapsed, 0ns), again);
    }
  }

  void ask(const PeerCredentials& peer, int connection, Verdict verdict) {
    const auto ofThisUser = std::count_if(questions.begin(), questions.end(),
                                          [&](const Question& other) { return other.peer.uid == peer.uid; });
    if (questions.size() >= maximumQuestions || ofThisUser >= maximumQuestionsOfOneUser) {
      return verdict(sentence("too many requests are waiting for polkit"));
    }
    auto& question = questions.emplace_back();
    question.state = this;
    question.peer = peer;
    question.inSocketGroup = isInGroup(peer, connection, socketGroup);
    question.verdict = std::move(verdict);
    if (!send(question)) return closeBus();
    pump();
  }
};

SystemPeerAuthority::SystemPeerAuthority(std::shared_ptr<TaskQueue> queue, std::string action,
                                         gid_t socketGroup)
    : state_(std::make_shared<State>()) {
  state_->queue = std::move(queue);
  state_->action = std::move(action);
  state_->socketGroup = socketGroup;
}

SystemPeerAuthority::~SystemPeerAuthority() {
  state_->questions.clear();
  state_->closeBus();
}

void SystemPeerAuthority::check(const PeerCredentials& peer, int connection, Verdict verdict) {
  if (peer.uid == 0 || state_->isStillAllowed(peer)) return verdict(std::nullopt);
  state_->ask(peer, connection, std::move(verdict));
}

void OwnerAuthority::check(const PeerCredentials& peer, int /*connection*/, Verdict verdict) {
  if (peer.uid == 0 || peer.uid == ::geteuid()) return verdict(std::nullopt);
  verdict(sentence("this helper belongs to another user"));
}

}  // namespace vimbrel
