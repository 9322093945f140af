// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace vimbrel {

/// What the relay's command line says. Texts are borrowed from the arguments.
struct RelayOptions {
  std::optional<std::string_view> agent;
  std::optional<std::string_view> state;
  std::optional<std::string_view> sessionId;
  /// The member of the JSON document on the standard input that names the session.
  std::optional<std::string_view> sessionKey;
  std::optional<std::string_view> cwd;
  std::optional<std::string_view> model;
  std::optional<std::string_view> turnId;
  std::optional<std::string_view> socketPath;
  std::optional<std::int32_t> pid;
  bool leavesPidOut = false;  ///< the event names no process
  std::optional<std::int64_t> inputTokens;
  std::optional<std::int64_t> outputTokens;
  std::optional<std::int64_t> cachedTokens;
  std::optional<std::int64_t> reasoningTokens;
  bool help = false;  ///< nothing after the request for help was looked at
};

/// Reads the arguments that follow the program's name. There are no errors: an option without a value, an
/// argument that is no option, and a number that is none are skipped, because a hook must not be held up by
/// its own mistakes. The value of a skipped number is looked at as an argument in its own right. Of a
/// repeated option the last counts.
[[nodiscard]] RelayOptions parseRelayOptions(std::span<char* const> arguments);

/// The line that `--help` prints, with its newline.
inline constexpr std::string_view relayUsage =
    "Usage: vimbrel-relay --agent <name> --state <state> [--session-id <id>] [--input-tokens <n>] "
    "[--output-tokens <n>] [--cached-tokens <n>] [--reasoning-tokens <n>] [--model <model>]\n";

}  // namespace vimbrel
