// SPDX-License-Identifier: Apache-2.0
#include "RelayOptions.h"

#include <charconv>

namespace vimbrel {
namespace {

using Text = std::optional<std::string_view> RelayOptions::*;
using Int32 = std::optional<std::int32_t> RelayOptions::*;
using Int64 = std::optional<std::int64_t> RelayOptions::*;

/// One spelling of an option; exactly one of the members is set.
struct Spelling {
  std::string_view name;
  Text text = nullptr;
  Int32 int32 = nullptr;
  Int64 int64 = nullptr;
};

constexpr Spelling spellings[] = {
    {.name = "--agent", .text = &RelayOptions::agent},
    {.name = "-a", .text = &RelayOptions::agent},
    {.name = "--state", .text = &RelayOptions::state},
    {.name = "-s", .text = &RelayOptions::state},
    {.name = "--session-id", .text = &RelayOptions::sessionId},
    {.name = "--session", .text = &RelayOptions::sessionId},
    {.name = "-id", .text = &RelayOptions::sessionId},
    {.name = "--session-key", .text = &RelayOptions::sessionKey},
    {.name = "--pid", .int32 = &RelayOptions::pid},
    {.name = "-p", .int32 = &RelayOptions::pid},
    {.name = "--cwd", .text = &RelayOptions::cwd},
    {.name = "-c", .text = &RelayOptions::cwd},
    {.name = "--input-tokens", .int64 = &RelayOptions::inputTokens},
    {.name = "--tokens-in", .int64 = &RelayOptions::inputTokens},
    {.name = "--output-tokens", .int64 = &RelayOptions::outputTokens},
    {.name = "--tokens-out", .int64 = &RelayOptions::outputTokens},
    {.name = "--cached-tokens", .int64 = &RelayOptions::cachedTokens},
    {.name = "--tokens-cache", .int64 = &RelayOptions::cachedTokens},
    {.name = "--reasoning-tokens", .int64 = &RelayOptions::reasoningTokens},
    {.name = "--tokens-reasoning", .int64 = &RelayOptions::reasoningTokens},
    {.name = "--model", .text = &RelayOptions::model},
    {.name = "-m", .text = &RelayOptions::model},
    {.name = "--turn-id", .text = &RelayOptions::turnId},
    {.name = "--turn", .text = &RelayOptions::turnId},
    {.name = "--socket", .text = &RelayOptions::socketPath},
};

const Spelling* spellingOf(std::string_view argument) {
  for (const auto& spelling : spellings) {
    if (spelling.name == argument) return &spelling;
  }
  return nullptr;
}

/// Decimal digits after an optional single sign, and nothing else; false when that is not what `text` is or
/// the value does not fit.
template <typename Integer>
bool readInteger(std::string_view text, std::optional<Integer>& result) {
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return false;
  }
  Integer value = 0;
  const auto end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc{} || stop != end) return false;
  result = value;
  return true;
}

/// True when the value was taken.
bool takeValue(RelayOptions& options, const Spelling& spelling, std::string_view value) {
  if (spelling.int32 != nullptr) return readInteger(value, options.*spelling.int32);
  if (spelling.int64 != nullptr) return readInteger(value, options.*spelling.int64);
  options.*spelling.text = value;
  return true;
}

}  // namespace

RelayOptions parseRelayOptions(std::span<char* const> arguments) {
  RelayOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string_view argument = arguments[i];
    if (argument == "--help" || argument == "-h") {
      options.help = true;
      return options;
    }
    if (argument == "--no-pid") options.leavesPidOut = true;
    const auto* spelling = spellingOf(argument);
    if (spelling == nullptr || i + 1 == arguments.size()) continue;
    if (takeValue(options, *spelling, arguments[i + 1])) ++i;
  }
  return options;
}

}  // namespace vimbrel
