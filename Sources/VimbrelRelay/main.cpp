// SPDX-License-Identifier: Apache-2.0
// What agents' hooks run: one event in, one exchange with the hook socket, and status 0 whatever happens, so
// that no agent is ever held up or confused. It runs thousands of times a day, so it uses neither the heap
// nor the C++ library, and nothing that would have to be set up at start.
#include <limits.h>
#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string_view>

#include "AgentMonitoring/Hooks/HookSocketExchange.h"
#include "AgentMonitoring/Hooks/HookSocketPath.h"
#include "Domain/AgentState.h"
#include "Domain/AgentType.h"
#include "Domain/HookEventWire.h"
#include "FixedBuffer.h"
#include "PasswordFile.h"
#include "RelayOptions.h"
#include "Support/ApplicationSupportPath.h"
#include "Support/JsonMemberScanner.h"
#include "Support/SocketPathLimit.h"

namespace vimbrel {
namespace {

constexpr std::int64_t timeoutMs = 100;

void printUsage() {
  // Whoever asked for help and closed the output does not miss it.
  static_cast<void>(!::write(STDOUT_FILENO, relayUsage.data(), relayUsage.size()));
}

void send(const RelayOptions& options, std::string_view bytes) {
  FixedBuffer<maximumSocketPathLength> path;
  if (options.socketPath) {
    path.append(options.socketPath->data(), options.socketPath->size());
  } else {
    appendApplicationSupport(path, std::getenv("XDG_DATA_HOME"), std::getenv("HOME"), [](auto& sink) {
      appendHomeFromPasswordFile(sink, "/etc/passwd", ::geteuid());
    });
    path.append(hookSocketBelowApplicationSupport.data(), hookSocketBelowApplicationSupport.size());
  }
  if (path.overflowed()) return;
  static_cast<void>(exchangeWithHookSocket(path.text(), bytes.data(), bytes.size(), timeoutMs));
}

/// Hands on what stands on the standard input, byte for byte.
void forwardStandardInput(const RelayOptions& options) {
  static char input[maximumHookEventBytes];
  std::size_t size = 0;
  while (size < sizeof input) {
    const auto count = ::read(STDIN_FILENO, input + size, sizeof input - size);
    if (count == 0) break;
    if (count > 0) {
      size += static_cast<std::size_t>(count);
    } else if (errno != EINTR) {
      return;
    }
  }
  if (size != 0) send(options, {input, size});
}

std::int64_t monotonicMilliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

/// Looks for the session on the standard input, where most agents describe the event. Stops reading at the
/// first of these: it is found, the input ends, as much was read as an event may have, or the time is over;
/// an agent that leaves its end open is not waited for.
void scanStandardInput(JsonMemberScanner& scanner) {
  const auto deadline = monotonicMilliseconds() + timeoutMs;
  char piece[16384];
  for (std::size_t total = 0; total < maximumHookEventBytes;) {
    // What is there already is read also when this process itself was kept waiting.
    const auto left = std::max<std::int64_t>(deadline - monotonicMilliseconds(), 0);
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&input, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return;
    const auto count = ::read(STDIN_FILENO, piece, sizeof piece);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (count <= 0) return;
    total += static_cast<std::size_t>(count);
    if (scanner.feed({piece, static_cast<std::size_t>(count)}) != JsonMemberScanner::Progress::more) return;
  }
}

/// Seconds since 1970 with six decimals, the finest that a 64-bit float of this size tells apart.
template <typename Sink>
void appendTimestamp(Sink& sink) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  appendInteger(sink, now.tv_sec);
  char fraction[] = ".000000";
  auto microseconds = now.tv_nsec / 1000;
  for (int i = 6; i > 0; --i, microseconds /= 10) fraction[i] = static_cast<char>('0' + microseconds % 10);
  sink.append(fraction, sizeof fraction - 1);
}

void sendEvent(const RelayOptions& options) {
  FixedBuffer<32> timestamp;
  appendTimestamp(timestamp);
  auto sessionId = options.sessionId;
  JsonMemberScanner scanner(options.sessionKey.value_or(""));
  if (options.sessionKey && (!sessionId || sessionId->empty())) {
    scanStandardInput(scanner);
    if (scanner.progress() == JsonMemberScanner::Progress::found) sessionId = scanner.value();
  }
  const auto agent = rawValue(agentTypeFromLenientText(*options.agent));
  std::optional<std::int32_t> pid = options.pid ? *options.pid : ::getppid();
  FixedBuffer<64> derived;
  if (options.leavesPidOut) {
    // The process still tells conversations apart.
    if (!sessionId || sessionId->empty()) {
      appendDerivedSessionId(derived, agent, pid);
      sessionId = derived.text();
    }
    pid.reset();
  }
  HookEventFields event{
      .agent = agent,
      .sessionId = sessionId,
      .state = rawValue(agentStateFromLenientText(*options.state)),
      .timestamp = timestamp.text(),
      .pid = pid,
      .cwd = options.cwd,
      .inputTokens = options.inputTokens,
      .outputTokens = options.outputTokens,
      .cachedTokens = options.cachedTokens,
      .reasoningTokens = options.reasoningTokens,
      .model = options.model,
      .turnId = options.turnId,
  };
  char directory[PATH_MAX];
  if (!event.cwd && ::getcwd(directory, sizeof directory) != nullptr) event.cwd = directory;
  static constinit FixedBuffer<maximumHookEventBytes> document;
  appendHookEvent(document, event);
  // No receiver reads a longer document.
  if (!document.overflowed()) send(options, document.text());
}

void run(std::span<char* const> arguments) {
  const auto options = parseRelayOptions(arguments);
  if (options.help) {
    printUsage();
  } else if (options.agent && options.state) {
    sendEvent(options);
  } else {
    forwardStandardInput(options);
  }
}

}  // namespace
}  // namespace vimbrel

int main(int count, char** arguments) {
  // A caller may leave even the program's name away.
  if (count > 1) {
    vimbrel::run({arguments + 1, static_cast<std::size_t>(count - 1)});
  } else {
    vimbrel::run({});
  }
  // Not through exit: there is nothing to flush and nothing to destroy.
  ::_exit(0);
}
