// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Support/JsonWriter.h"

namespace vimbrel {

/// What one connection to the hook socket may carry, in bytes: the sender sends no more, the reader takes no
/// more.
inline constexpr std::size_t maximumHookEventBytes = 65536;

/// The keys of a hook event on the wire.
namespace hookEventKey {
inline constexpr std::string_view schema = "schema";
inline constexpr std::string_view agent = "agent";
inline constexpr std::string_view sessionId = "session_id";
inline constexpr std::string_view state = "state";
inline constexpr std::string_view timestamp = "timestamp";
inline constexpr std::string_view pid = "pid";
inline constexpr std::string_view cwd = "cwd";
inline constexpr std::string_view inputTokens = "input_tokens";
inline constexpr std::string_view outputTokens = "output_tokens";
inline constexpr std::string_view cachedTokens = "cached_tokens";
inline constexpr std::string_view reasoningTokens = "reasoning_tokens";
inline constexpr std::string_view model = "model";
inline constexpr std::string_view turnId = "turn_id";
}  // namespace hookEventKey

/// A hook event as borrowed texts, ready to be written. The relay fills it from its arguments without
/// allocating; `HookEvent::toJSONData` fills it from the record, so that keys and order are defined once.
struct HookEventFields {
  std::int64_t schema = 1;
  std::string_view agent;  ///< raw value
  /// Absent: derived from `agent` and `pid`. An empty one is sent as it is; whoever reads it derives it.
  std::optional<std::string_view> sessionId;
  std::string_view state;      ///< raw value
  std::string_view timestamp;  ///< seconds since 1970 as a JSON number
  std::optional<std::int32_t> pid;
  std::optional<std::string_view> cwd;
  std::optional<std::int64_t> inputTokens;
  std::optional<std::int64_t> outputTokens;
  std::optional<std::int64_t> cachedTokens;
  std::optional<std::int64_t> reasoningTokens;
  std::optional<std::string_view> model;
  std::optional<std::string_view> turnId;
};

/// "<agent>-<pid>", or "<agent>-default" without a pid.
template <typename Sink>
void appendDerivedSessionId(Sink& sink, std::string_view agent, std::optional<std::int32_t> pid) {
  sink.append(agent.data(), agent.size());
  if (pid) {
    sink.append("-", 1);
    appendInteger(sink, *pid);
  } else {
    sink.append("-default", 8);
  }
}

/// Appends the compact document, slashes escaped and absent fields left out, to anything with
/// `append(const char*, std::size_t)`.
template <typename Sink>
void appendHookEvent(Sink& sink, const HookEventFields& event) {
  const auto key = [&](std::string_view name) {
    sink.append(name == hookEventKey::schema ? "{\"" : ",\"", 2);
    sink.append(name.data(), name.size());
    sink.append("\":", 2);
  };
  const auto text = [&](std::string_view name, const std::optional<std::string_view>& value) {
    if (!value) return;
    key(name);
    appendJsonString(sink, *value, SlashEscape::escaped);
  };
  const auto integer = [&](std::string_view name, std::optional<std::int64_t> value) {
    if (!value) return;
    key(name);
    appendInteger(sink, *value);
  };
  integer(hookEventKey::schema, event.schema);
  text(hookEventKey::agent, event.agent);
  if (!event.sessionId) {
    key(hookEventKey::sessionId);
    sink.append("\"", 1);
    appendDerivedSessionId(sink, event.agent, event.pid);
    sink.append("\"", 1);
  } else {
    text(hookEventKey::sessionId, event.sessionId);
  }
  text(hookEventKey::state, event.state);
  key(hookEventKey::timestamp);
  sink.append(event.timestamp.data(), event.timestamp.size());
  integer(hookEventKey::pid, event.pid);
  text(hookEventKey::cwd, event.cwd);
  integer(hookEventKey::inputTokens, event.inputTokens);
  integer(hookEventKey::outputTokens, event.outputTokens);
  integer(hookEventKey::cachedTokens, event.cachedTokens);
  integer(hookEventKey::reasoningTokens, event.reasoningTokens);
  text(hookEventKey::model, event.model);
  text(hookEventKey::turnId, event.turnId);
  sink.append("}", 1);
}

}  // namespace vimbrel
