// SPDX-License-Identifier: Apache-2.0
// Any command line of the relay, its arguments separated by NUL: what it sends, the receiver can read, and
// reads as what was meant.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Domain/HookEvent.h"
#include "Domain/HookEventWire.h"
#include "RelayOptions.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

/// What JSON carries unchanged whatever the writer does about bytes that are no UTF-8.
bool isAscii(std::string_view text) {
  return std::ranges::all_of(text, [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

void requireSame(const std::optional<std::string>& read, const std::optional<std::string_view>& sent) {
  require(read.has_value() == sent.has_value());
  if (sent && isAscii(*sent)) require(*read == *sent);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  std::vector<std::string> texts{""};
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      texts.emplace_back();
    } else {
      texts.back().push_back(static_cast<char>(data[i]));
    }
  }
  std::vector<char*> arguments;
  for (auto& text : texts) arguments.push_back(text.data());
  const auto options = parseRelayOptions(arguments);
  if (options.help || !options.agent || !options.state) return 0;

  const auto agent = agentTypeFromLenientText(*options.agent);
  const auto state = agentStateFromLenientText(*options.state);
  std::string document;
  appendHookEvent(document, {.agent = rawValue(agent),
                             .sessionId = options.sessionId,
                             .state = rawValue(state),
                             .timestamp = "1700000000.5",
                             .pid = options.pid,
                             .cwd = options.cwd,
                             .inputTokens = options.inputTokens,
                             .outputTokens = options.outputTokens,
                             .cachedTokens = options.cachedTokens,
                             .reasoningTokens = options.reasoningTokens,
                             .model = options.model,
                             .turnId = options.turnId});
  if (document.size() > maximumHookEventBytes) return 0;
  const auto event = HookEvent::parse(document, Instant{});
  require(event.has_value());
  require(event->agent == agent && event->state == state && event->pid == options.pid);
  require(event->timestamp == instantFromUnixSeconds(1'700'000'000.5));
  require(event->inputTokens == options.inputTokens && event->outputTokens == options.outputTokens);
  require(event->cachedTokens == options.cachedTokens && event->reasoningTokens == options.reasoningTokens);
  requireSame(event->cwd, options.cwd);
  requireSame(event->model, options.model);
  requireSame(event->turnId, options.turnId);
  if (options.sessionId && !options.sessionId->empty()) {
    requireSame(event->sessionId, options.sessionId);
  } else {
    require(event->sessionId == HookEvent::derivedSessionId(agent, options.pid));
  }
  return 0;
}
