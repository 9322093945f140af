// SPDX-License-Identifier: Apache-2.0
// Each agent's hooks as its present versions read them: the one place to change when a vendor changes a
// format.
#include <nlohmann/json.hpp>

#include "AgentMonitoring/Adapters/ClaudeCodeAdapter.h"
#include "AgentMonitoring/Adapters/CodexAdapter.h"
#include "AgentMonitoring/Adapters/GeminiAdapter.h"
#include "AgentMonitoring/Adapters/HookCommand.h"
#include "AgentMonitoring/Adapters/OpenCodeAdapter.h"
#include "AgentMonitoring/Adapters/ProcessAdapters.h"

namespace vimbrel {
namespace {

using Json = nlohmann::ordered_json;

std::string written(const Json& document) {
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// One entry of an event's list in the nesting that Claude Code, Codex and Gemini CLI share.
Json nested(Json hook, const char* matcher = nullptr) {
  Json entry = Json::object();
  if (matcher != nullptr) entry["matcher"] = matcher;
  entry["hooks"] = Json::array({std::move(hook)});
  return entry;
}

std::string mergeInstructions(const std::string& path, const std::string& more) {
  return "1. Open " + path + " in your text editor, or create it with exactly this text.\n" +
         "2. If the file has hooks of its own, add these entries to them.\n" + more;
}

}  // namespace

std::optional<CurrentSetup> ClaudeCodeAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::claude, "session_id");
  const auto hook = [&](AgentState state) {
    return Json{{"type", "command"}, {"command", relay.reporting(state)}, {"timeout", 5}};
  };
  Json hooks = Json::object();
  hooks["UserPromptSubmit"] = Json::array({nested(hook(AgentState::working))});
  hooks["PreToolUse"] = Json::array({nested(hook(AgentState::working), "*")});
  hooks["PostToolUse"] = Json::array({nested(hook(AgentState::working), "*")});
  hooks["Notification"] =
      Json::array({nested(hook(AgentState::waiting), "permission_prompt|elicitation_dialog"),
                   nested(hook(AgentState::idle), "idle_prompt")});
  hooks["Stop"] = Json::array({nested(hook(AgentState::idle))});
  hooks["SessionEnd"] = Json::array({nested(hook(AgentState::completed))});
  const std::string path = "~/.claude/settings.json";
  return CurrentSetup{path, written(Json{{"hooks", hooks}}), "json", "Claude Code as of autumn 2026",
                      mergeInstructions(path, "3. Save the file and start Claude Code anew.")};
}

std::optional<CurrentSetup> CodexAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::codex, "session_id");
  const auto hook = [&](AgentState state) {
    return Json::array(
        {nested(Json{{"type", "command"}, {"command", relay.reporting(state)}, {"timeout", 5}})});
  };
  Json hooks = Json::object();
  hooks["UserPromptSubmit"] = hook(AgentState::working);
  hooks["PreToolUse"] = hook(AgentState::working);
  hooks["PermissionRequest"] = hook(AgentState::waiting);
  hooks["PostToolUse"] = hook(AgentState::working);
  hooks["Stop"] = hook(AgentState::idle);
  hooks["Interrupt"] = hook(AgentState::idle);
  hooks["SessionEnd"] = hook(AgentState::completed);
  const std::string path = "~/.codex/hooks.json";
  return CurrentSetup{
      path, written(Json{{"hooks", hooks}}), "json",
      "Codex CLI as of autumn 2026; older versions have only the notify setting",
      mergeInstructions(path,
                        "3. Start Codex and trust the hooks once with the command /hooks.\n"
                        "4. Codex trusts the text as it is: after every change of this file it leaves "
                        "the hooks out, without a word, until you trust them again.")};
}

std::optional<CurrentSetup> GeminiAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::gemini, "session_id");
  const auto hook = [&](AgentState state, const char* matcher = nullptr) {
    // Gemini CLI counts its time-outs in milliseconds.
    return Json::array({nested(
        Json{
            {"name", "vimbrel"}, {"type", "command"}, {"command", relay.reporting(state)}, {"timeout", 2000}},
        matcher)});
  };
  Json hooks = Json::object();
  hooks["SessionStart"] = hook(AgentState::idle);
  hooks["BeforeAgent"] = hook(AgentState::working);
  hooks["BeforeTool"] = hook(AgentState::working);
  hooks["AfterTool"] = hook(AgentState::working);
  hooks["Notification"] = hook(AgentState::waiting, "ToolPermission");
  hooks["AfterAgent"] = hook(AgentState::idle);
  hooks["SessionEnd"] = hook(AgentState::completed);
  const std::string path = "~/.gemini/settings.json";
  return CurrentSetup{path, written(Json{{"hooks", hooks}}), "json", "Gemini CLI as of autumn 2026",
                      mergeInstructions(path, "3. Save the file and start Gemini CLI anew.")};
}

std::optional<CurrentSetup> OpenCodeAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const auto relay = Json(std::string(relayBinaryPath)).dump(-1, ' ', false, Json::error_handler_t::replace);
  // OpenCode takes every export of a plugin for a function to call, so nothing else may be exported.
  const std::string snippet = "const relay = " + relay + R"js(;

export const Vimbrel = async ({ $ }) => {
  const children = new Set();
  const last = new Map();

  const report = async (state, session) => {
    if (!session || children.has(session)) return;
    // OpenCode repeats "busy" while it works; one report in ten seconds is enough to be seen alive.
    const before = last.get(session);
    const now = Date.now();
    if (before && before.state === state && now - before.at < 10000) return;
    last.set(session, { state, at: now });
    await $`${relay} --agent opencode --state ${state} --session-id ${session} --pid ${process.pid}`.quiet().nothrow();
  };

  return {
    event: async ({ event }) => {
      try {
        const properties = event.properties ?? {};
        switch (event.type) {
          case "session.created":
            // A child session goes idle on its own while its parent works on.
            if (properties.info?.parentID) children.add(properties.info.id);
            break;
          case "session.status":
            await report(properties.status?.type === "idle" ? "idle" : "working", properties.sessionID);
            break;
          case "permission.asked":
          case "permission.updated":
            await report("waiting", properties.sessionID);
            break;
          case "permission.replied":
            await report("working", properties.sessionID);
            break;
          case "session.deleted":
            await report("completed", properties.info?.id ?? properties.sessionID);
            break;
        }
      } catch {
        // A report that cannot be made must never disturb the agent.
      }
    },
  };
};
)js";
  const std::string path = "~/.config/opencode/plugins/vimbrel.js";
  return CurrentSetup{path, snippet, "javascript", "OpenCode as of autumn 2026",
                      "1. Create the plugin directory if it does not exist:\n"
                      "   mkdir -p ~/.config/opencode/plugins\n"
                      "2. Save this text as " +
                          path + "\n3. Start OpenCode anew."};
}

std::optional<CurrentSetup> CursorAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::cursor, "conversation_id");
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"command", relay.reporting(state)}}});
  };
  Json hooks = Json::object();
  hooks["beforeSubmitPrompt"] = hook(AgentState::working);
  hooks["postToolUse"] = hook(AgentState::working);
  hooks["stop"] = hook(AgentState::idle);
  hooks["sessionEnd"] = hook(AgentState::completed);
  const std::string path = "~/.cursor/hooks.json";
  return CurrentSetup{
      path, written(Json{{"version", 1}, {"hooks", hooks}}), "json", "Cursor as of autumn 2026",
      mergeInstructions(path,
                        "3. Keep the names of the events as they are: one that Cursor does not know "
                        "makes it leave out the whole file.")};
}

std::optional<CurrentSetup> WindsurfAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::windsurf, "trajectory_id");
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"command", relay.reporting(state)}, {"show_output", false}}});
  };
  Json hooks = Json::object();
  hooks["pre_user_prompt"] = hook(AgentState::working);
  hooks["post_run_command"] = hook(AgentState::working);
  hooks["post_cascade_response"] = hook(AgentState::idle);
  const std::string path = "~/.codeium/windsurf/hooks.json";
  return CurrentSetup{path, written(Json{{"hooks", hooks}}), "json", "Windsurf as of autumn 2026",
                      mergeInstructions(path, "3. Save the file and start Windsurf anew.")};
}

std::optional<CurrentSetup> AntigravityAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::antigravity, "");
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"type", "command"}, {"command", relay.reporting(state)}, {"timeout", 5}}});
  };
  Json hooks = Json::object();
  hooks["PreInvocation"] = hook(AgentState::working);
  hooks["Stop"] = hook(AgentState::idle);
  const std::string path = "~/.gemini/config/hooks.json";
  return CurrentSetup{
      path, written(Json{{"vimbrel", hooks}}), "json", "Antigravity as of autumn 2026",
      mergeInstructions(path,
                        "3. Check the file with a JSON tool: Antigravity leaves out a file with any "
                        "error, without a word.")};
}

std::optional<CurrentSetup> AiderAdapter::currentSetup(std::string_view relayBinaryPath) const {
  const HookCommand relay(relayBinaryPath, AgentType::aider, "");
  const auto command =
      Json(relay.reporting(AgentState::waiting)).dump(-1, ' ', false, Json::error_handler_t::replace);
  const std::string path = "~/.aider.conf.yml";
  return CurrentSetup{
      path, "notifications: true\nnotifications-command: " + command + "\n", "yaml",
      "Aider as of autumn 2026",
      "1. Open " + path +
          " in your text editor, or create it.\n"
          "2. Add these two lines.\n"
          "3. Aider reports only that it is ready for your next prompt; that it works is seen from its "
          "process."};
}

}  // namespace vimbrel
