// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/CommandClassifier.h"

#include <algorithm>
#include <array>

namespace vimbrel {
namespace {

using std::string_view_literals::operator""sv;

/// Run as a program, by path or by name with arguments. A bare name is left out: it says too little.
bool runs(std::string_view command, std::string_view path, std::string_view first, std::string_view within) {
  return command.contains(path) || command.starts_with(first) || command.contains(within);
}

bool containsAny(std::string_view command, const auto& texts) {
  return std::ranges::any_of(texts, [&](std::string_view text) { return command.contains(text); });
}

std::optional<CommandClassification> classifyCodex(std::string_view command) {
  // Helpers of the desktop application, and the server that editors keep running.
  constexpr std::array helpers{"Codex (Service)"sv,    "Codex (Renderer)"sv, "Codex (GPU)"sv,
                               "app-server"sv,         "SkyComputerUse"sv,   "codex-code-mode-host"sv,
                               "ChatGPT for Chrome"sv, "ChatGPT.app"sv,      "plugins/openai-bundled"sv};
  if (containsAny(command, helpers)) return std::nullopt;
  const bool isWorking =
      command.contains("exec") || command.ends_with("/codex") || command.contains(" codex ");
  return CommandClassification{AgentType::codex, "Codex CLI", isWorking};
}

bool isOpenCodeWorking(std::string_view command) {
  // A server waits for clients; it says nothing about work.
  if (command.contains("--port") || command.contains("serve")) return false;
  return command.contains("run") || command.ends_with("/opencode") || command.contains(" opencode ");
}

std::optional<CommandClassification> classifyClaude(std::string_view command) {
  constexpr std::array errands{"auth login"sv, "install"sv, "--version"sv};
  if (containsAny(command, errands)) return std::nullopt;
  return CommandClassification{AgentType::claude, "Claude Code", true};
}

}  // namespace

std::optional<CommandClassification> classifyCommand(std::string_view command) {
  // Those that look for agents, and the system's own processes.
  constexpr std::array bystanders{"grep "sv, "ps -axo"sv, "vimbrel"sv};
  if (containsAny(command, bystanders)) return std::nullopt;
  if (command.contains("codex")) return classifyCodex(command);
  if (command.contains("opencode")) {
    return CommandClassification{AgentType::opencode, "OpenCode", isOpenCodeWorking(command)};
  }
  if (runs(command, "/claude", "claude ", " claude ")) return classifyClaude(command);
  if (runs(command, "/gemini", "gemini ", " gemini ")) {
    if (command.contains("antigravity")) return std::nullopt;
    return CommandClassification{AgentType::gemini, "Gemini CLI", true};
  }
  if (command.contains("aider")) return CommandClassification{AgentType::aider, "Aider", true};
  return std::nullopt;
}

}  // namespace vimbrel
