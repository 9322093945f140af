// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/CommandClassifier.h"

#include <gtest/gtest.h>

namespace vimbrel {
namespace {

std::string verdict(std::string_view command) {
  const auto found = classifyCommand(command);
  if (!found) return "skip";
  return std::string(found->name) + (found->isWorking ? ", working" : ", not working");
}

TEST(CommandClassifier, takesTheFirstRuleThatFits) {
  const std::pair<const char*, const char*> cases[] = {
      // Bystanders win over everything.
      {"grep codex exec", "skip"},
      {"grepper --for codex exec", "Codex CLI, working"},
      {"/bin/ps -axo pid,command | aider", "skip"},
      {"/usr/bin/vimbrel-relay --agent codex exec", "skip"},
      {"/usr/bin/Vimbrel codex exec", "Codex CLI, working"},
      // Codex.
      {"/usr/local/bin/codex", "Codex CLI, working"},
      {"node codex resume", "Codex CLI, working"},
      {"codex resume", "Codex CLI, not working"},
      {"codex", "Codex CLI, not working"},
      {"[codex] <defunct>", "Codex CLI, not working"},
      {"/opt/codex/opencode run", "Codex CLI, not working"},
      {"/Applications/ChatGPT.app/Contents/Resources/codex app-server", "skip"},
      {"/opt/ChatGPT.app/codex exec", "skip"},
      // OpenCode, in the order of its tests.
      {"node /opt/homebrew/bin/opencode serve --port 4096", "OpenCode, not working"},
      {"opencode run --port 1", "OpenCode, not working"},
      {"opencode serve run", "OpenCode, not working"},
      {"opencode run task", "OpenCode, working"},
      {"/opt/homebrew/bin/opencode", "OpenCode, working"},
      {"node opencode tui", "OpenCode, working"},
      {"opencode tui", "OpenCode, not working"},
      {"opencode /claude", "OpenCode, not working"},
      // Claude Code.
      {"claude --resume", "Claude Code, working"},
      {"/home/u/.local/bin/claude", "Claude Code, working"},
      {"node claude x", "Claude Code, working"},
      {"claude", "skip"},
      {"claude --version", "skip"},
      {"/x/claude /gemini", "Claude Code, working"},
      // Gemini CLI.
      {"gemini -p x", "Gemini CLI, working"},
      {"/usr/bin/gemini", "Gemini CLI, working"},
      {"node gemini x", "Gemini CLI, working"},
      {"gemini", "skip"},
      {"/usr/bin/gemini antigravity aider", "skip"},
      // Aider.
      {"python -m aider", "Aider, working"},
      {"raider", "Aider, working"},
      {"", "skip"},
      {"/usr/share/cursor/cursor --type=renderer", "skip"},
      {"/usr/share/cursor/cursor /x/claude-code/cli.js", "Claude Code, working"},
  };
  for (const auto& [command, expected] : cases) EXPECT_EQ(verdict(command), expected) << command;
}

}  // namespace
}  // namespace vimbrel
