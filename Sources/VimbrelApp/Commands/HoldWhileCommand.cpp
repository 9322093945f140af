// SPDX-License-Identifier: Apache-2.0
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlClient.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Support/DurationText.h"
#include "Support/Fd.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"

extern char** environ;

namespace vimbrel {

using nlohmann::json;

namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

// What the application grants to one command.
constexpr Seconds longestHold = std::chrono::weeks(1);

// What shells answer for a command that cannot be run, or was not found.
constexpr int exitCannotRun = 126;
constexpr int exitNotFound = 127;

void tell(const std::string& problem) { (void)reportProblem(problem); }

/// Tells the user what the answer to "holdWhile" means for the command, as far as it is not what was asked.
void reportHold(const json& state) {
  if (!state.value("isHolding", false)) {
    tell(say("the machine is NOT held: %1; the command runs all the same",
             {retell(state.value("statusDescription", "?"))}));
  } else if (isHeldInVain(state)) {
    tell(say("Held: %1", {heldSentence(state)}));
  }
}

/// Why closing the lid suspends the machine although it should not; empty when it does not.
std::string uncoveredReason(const json& state) {
  const auto closedLid = state.find("closedLid");
  if (closedLid == state.end() || !closedLid->is_object()) return {};
  if (closedLid->value("cover", std::string{}) != "uncovered") return {};
  return closedLid->value("explanation", std::string{});
}

bool hasHelper(const json& state) {
  const auto closedLid = state.find("closedLid");
  if (closedLid == state.end() || !closedLid->is_object()) return false;
  const auto helper = closedLid->find("helper");
  return helper == closedLid->end() || !helper->is_object() || helper->value("isHelperInstalled", true);
}

/// Tells when the lid is not covered; a helper gets a moment to do so, in which the command has not begun.
void reportLid(ControlClient& client, json state) {
  constexpr auto helperPatience = 2s;
  constexpr auto askInterval = 50ms;
  const auto end = SteadyClock::now() + helperPatience;
  while (!uncoveredReason(state).empty() && hasHelper(state) && SteadyClock::now() < end) {
    ::poll(nullptr, 0, static_cast<int>(askInterval.count()));
    auto next = client.call("status", json::object());
    if (!next) return;  // Its end is seen, and told, when the command runs.
    state = std::move(*next);
  }
  if (const auto reason = uncoveredReason(state); !reason.empty()) tell(retell(reason));
}

/// The hold of one command: as long as its connection.
class Hold {
 public:
  Hold(std::string command, Instant until, bool lid)
      : command_(std::move(command)), until_(until), lid_(lid) {}

  /// The exit status that a failure asks for.
  std::optional<int> begin() {
    auto client = ControlClient::connect(controlSocketPath());
    if (!client) return reportFailure(client.error());
    const auto state = client->call("holdWhile", parameters());
    if (!state) return reportFailure(state.error());
    reportHold(*state);
    if (lid_ && state->value("isHolding", false)) reportLid(*client, *state);
    client_ = std::move(*client);
    return std::nullopt;
  }

  /// Tries quietly to hold again after the application went away.
  bool beginAgain() {
    auto client = ControlClient::connect(controlSocketPath(), 1s);
    if (!client || !client->call("holdWhile", parameters(), 2s)) return false;
    client_ = std::move(*client);
    return true;
  }

  /// The application sends nothing on this connection: what makes it readable is its end.
  [[nodiscard]] int descriptor() const { return client_ ? client_->descriptor() : -1; }
  [[nodiscard]] bool isHeld() const { return client_.has_value(); }
  void end() { client_.reset(); }
  [[nodiscard]] Seconds left() const { return until_ - currentTime(); }

 private:
  [[nodiscard]] json parameters() const {
    return {{"command", command_}, {"seconds", std::max(left().count(), 0.001)}, {"lid", lid_}};
  }

  const std::string command_;
  const Instant until_;
  const bool lid_;
  std::optional<ControlClient> client_;
};

/// Starts the command with this terminal and everything else as its own, but for the signals blocked here.
std::expected<pid_t, int> start(const std::vector<std::string>& command, const sigset_t& originalMask) {
  std::vector<char*> argv;
  for (const auto& argument : command) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int signal : {SIGINT, SIGQUIT, SIGPIPE}) sigaddset(&defaults, signal);
  posix_spawnattr_setsigmask(&attributes, &originalMask);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  const int code = ::posix_spawnp(&pid, argv[0], nullptr, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  if (code == 0) return pid;
  tell(say("cannot run %1: %2", {command[0], retell(std::strerror(code))}));
  return std::unexpected(code == ENOENT ? exitNotFound : exitCannotRun);
}

/// Takes what signals came: passes on what ends programs, and tells whether the command has ended.
std::optional<int> takeSignals(int signals, pid_t command) {
  signalfd_siginfo information{};
  while (::read(signals, &information, sizeof information) == static_cast<ssize_t>(sizeof information)) {
    if (information.ssi_signo != SIGCHLD) ::kill(command, static_cast<int>(information.ssi_signo));
  }
  int status = 0;
  if (::waitpid(command, &status, WNOHANG) != command) return std::nullopt;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int waitFor(pid_t command, Hold& hold, int signals) {
  constexpr auto retryInterval = 5s;
  bool isOver = false;
  for (;;) {
    pollfd watched[2]{{signals, POLLIN, 0}, {hold.descriptor(), POLLIN, 0}};
    auto patience = hold.isHeld() ? hold.left() : std::min<Seconds>(hold.left(), retryInterval);
    patience = std::clamp<Seconds>(patience, 0s, 1h);
    const int timeout =
        isOver ? -1 : static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(patience).count());
    (void)::poll(watched, 2, timeout);
    if (const auto status = takeSignals(signals, command)) return *status;
    if (!isOver && hold.left() <= 0s) {
      isOver = true;
      hold.end();
      tell(say("the time of the hold is up; the command goes on without it"));
    } else if (!isOver && (watched[1].revents != 0)) {
      hold.end();
      tell(say("Vimbrel went away; the command goes on, and is held again when Vimbrel is back"));
    } else if (!isOver && !hold.isHeld() && hold.beginAgain()) {
      tell(say("Vimbrel is back and holds the command again"));
    }
  }
}

std::string nameOf(const std::string& program) {
  auto name = program.substr(program.rfind('/') + 1);
  return name.empty() || name.size() > 100 ? "a command" : name;
}

}  // namespace

int holdWhileCommand(const std::string& duration, bool lid, const std::vector<std::string>& command) {
  const auto length = parseDuration(duration);
  if (!length) return reportUsage(retell(length.error()));
  if (*length <= 0s) return reportUsage(say("a hold needs a time, such as 45m"));
  if (*length > longestHold) return reportUsage(say("a hold lasts a week at most"));
  // The arguments stay here: they may hold what is nobody's business.
  Hold hold(nameOf(command[0]), currentTime() + *length, lid);
  if (const auto failed = hold.begin()) return *failed;

  // The terminal sends its interrupts to the command too, which decides what they mean.
  ::signal(SIGINT, SIG_IGN);
  ::signal(SIGQUIT, SIG_IGN);
  sigset_t mask;
  sigset_t original;
  sigemptyset(&mask);
  for (const int signal : {SIGCHLD, SIGTERM, SIGHUP}) sigaddset(&mask, signal);
  ::sigprocmask(SIG_BLOCK, &mask, &original);
  const Fd signals(::signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC));
  if (!signals) {
    return reportProblem(say("cannot watch the command: %1", {retell(std::strerror(errno))}));
  }
  const auto started = start(command, original);
  if (!started) return started.error();
  return waitFor(*started, hold, signals.get());
}

}  // namespace vimbrel
