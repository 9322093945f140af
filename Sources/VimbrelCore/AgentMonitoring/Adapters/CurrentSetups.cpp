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
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using Json = nlohmann::ordered_json;
using enum AgentState;

std::string written(const Json& document) {
  return document.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

/// The text as a quoted literal, which JavaScript and YAML read alike.
std::string quoted(const std::string& text) {
  return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// One entry of an event's list in the nesting that Claude Code, Codex and Gemini CLI share.
Json nested(Json hook, const char* matcher = nullptr) {
  Json entry = Json::object();
  if (matcher != nullptr) entry["matcher"] = matcher;
  entry["hooks"] = Json::array({std::move(hook)});
  return entry;
}

std::string mergeInstructions(const std::string& path, const std::string& more) {
  return sentence(
      "1. Open %1 in your text editor, or create it with exactly this text.\n"
      "2. If the file has hooks of its own, add these entries to them.\n%2",
      {path, more});
}

}  // namespace

std::optional<CurrentSetup> ClaudeCodeAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::claude, "session_id");
  const auto hook = [&](AgentState state) {
    return Json{{"type", "command"}, {"command", command.reporting(state)}, {"timeout", 5}};
  };
  Json hooks = Json::object();
  hooks["UserPromptSubmit"] = Json::array({nested(hook(working))});
  hooks["PreToolUse"] = Json::array({nested(hook(working), "*")});
  hooks["PostToolUse"] = Json::array({nested(hook(working), "*")});
  hooks["Notification"] = Json::array(
      {nested(hook(waiting), "permission_prompt|elicitation_dialog"), nested(hook(idle), "idle_prompt")});
  hooks["Stop"] = Json::array({nested(hook(idle))});
  hooks["SessionEnd"] = Json::array({nested(hook(completed))});

  CurrentSetup setup;
  setup.configPath = environment_.shown(environment_.claudeConfiguration + "/settings.json");
  setup.snippet = written(Json{{"hooks", hooks}});
  setup.format = "json";
  setup.agentVersions = sentence("every Claude Code that has the command /hooks");
  setup.instructions =
      mergeInstructions(setup.configPath, sentence("3. Save the file and start Claude Code anew."));
  command.describe(setup, {working, waiting, idle, completed});
  return setup;
}

std::optional<CurrentSetup> CodexAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::codex, "session_id");
  const auto hook = [&](AgentState state) {
    return Json::array(
        {nested(Json{{"type", "command"}, {"command", command.reporting(state)}, {"timeout", 5}})});
  };
  Json hooks = Json::object();
  hooks["UserPromptSubmit"] = hook(working);
  hooks["PreToolUse"] = hook(working);
  hooks["PermissionRequest"] = hook(waiting);
  hooks["PostToolUse"] = hook(working);
  hooks["Stop"] = hook(idle);
  hooks["Interrupt"] = hook(idle);
  hooks["SessionEnd"] = hook(completed);

  CurrentSetup setup;
  setup.configPath = environment_.shown(environment_.codexHome + "/hooks.json");
  setup.snippet = written(Json{{"hooks", hooks}});
  setup.format = "json";
  setup.agentVersions =
      sentence("every Codex CLI that has the command /hooks; older ones have only the notify setting");
  setup.instructions = mergeInstructions(
      setup.configPath, sentence("3. Start Codex and trust the hooks once with the command /hooks.\n"
                                 "4. Codex trusts the text as it is: after every change of this file it "
                                 "leaves the hooks out, without a word, until you trust them again."));
  command.describe(setup, {working, waiting, idle, completed});
  return setup;
}

std::optional<CurrentSetup> GeminiAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::gemini, "session_id");
  const auto hook = [&](AgentState state, const char* matcher = nullptr) {
    // Gemini CLI counts its time-outs in milliseconds.
    return Json::array({nested(Json{{"name", "vimbrel"},
                                    {"type", "command"},
                                    {"command", command.reporting(state)},
                                    {"timeout", 2000}},
                               matcher)});
  };
  Json hooks = Json::object();
  hooks["SessionStart"] = hook(idle);
  hooks["BeforeAgent"] = hook(working);
  hooks["BeforeTool"] = hook(working);
  hooks["AfterTool"] = hook(working);
  hooks["Notification"] = hook(waiting, "ToolPermission");
  hooks["AfterAgent"] = hook(idle);
  hooks["SessionEnd"] = hook(completed);

  CurrentSetup setup;
  setup.configPath = "~/.gemini/settings.json";
  setup.snippet = written(Json{{"hooks", hooks}});
  setup.format = "json";
  setup.agentVersions = sentence("every Gemini CLI that has the command /hooks");
  setup.instructions =
      mergeInstructions(setup.configPath, sentence("3. Save the file and start Gemini CLI anew."));
  command.describe(setup, {working, waiting, idle, completed});
  return setup;
}

std::optional<CurrentSetup> OpenCodeAdapter::currentSetup(const RelayCall& relay) const {
  // OpenCode takes every export of a plugin for a function to call, so nothing else may be exported.
  std::string plugin = "const relay = " + quoted(relay.path) + ";\n";
  if (!relay.socket.empty()) plugin += "const socket = " + quoted(relay.socket) + ";\n";
  plugin += R"js(
export const Vimbrel = async ({ $ }) => {
  // Child sessions go idle on their own while their parents work on.
  const parents = new Map();
  const asking = new Set();
  const last = new Map();
  let queue = Promise.resolve();

  const rootOf = (session) => {
    for (let i = 0; i < 100 && parents.has(session); i++) session = parents.get(session);
    return session;
  };

  const report = (state, session) => {
    if (!session) return;
    // OpenCode repeats itself while it works; one report in ten seconds is enough to be seen alive.
    const before = last.get(session);
    const now = Date.now();
    if (before && before.state === state && now - before.at < 10000) return;
    last.set(session, { state, at: now });
    // One after the other, so that they arrive in the order in which they happened.
    queue = queue
      .then(() => $`${relay} --agent opencode --state ${state} --session-id ${session} --pid ${process.pid}@SOCKET@`.quiet().nothrow())
      .catch(() => {});
    return queue;
  };

  return {
    event: async ({ event }) => {
      try {
        const properties = event.properties ?? {};
        const session = properties.info?.id ?? properties.sessionID;
        switch (event.type) {
          case "session.created":
            if (properties.info?.parentID) parents.set(session, properties.info.parentID);
            break;
          case "session.status":
            if (parents.has(session)) break;
            if (properties.status?.type === "idle") {
              asking.delete(session);
              await report("idle", session);
            } else if (!asking.has(session)) {
              await report("working", session);
            }
            break;
          case "permission.asked":
          case "permission.updated":
            asking.add(rootOf(session));
            await report("waiting", rootOf(session));
            break;
          case "permission.replied":
            asking.delete(rootOf(session));
            await report("working", rootOf(session));
            break;
          case "session.deleted":
            if (!parents.delete(session)) {
              await report("completed", session);
              last.delete(session);
              asking.delete(session);
            }
            break;
        }
      } catch {
        // A report that cannot be made must never disturb the agent.
      }
    },
  };
};
)js";
  const std::string_view mark = "@SOCKET@";
  plugin.replace(plugin.find(mark), mark.size(), relay.socket.empty() ? "" : " --socket ${socket}");

  CurrentSetup setup;
  setup.configPath = environment_.shown(environment_.configurationHome + "/opencode/plugins/vimbrel.js");
  setup.snippet = plugin;
  setup.format = "javascript";
  setup.agentVersions = sentence("every OpenCode that loads plugins as functions and reports session.status");
  const auto directory = setup.configPath.substr(0, setup.configPath.rfind('/'));
  setup.instructions = sentence(
      "1. Create the plugin directory if it does not exist:\n   mkdir -p %1\n2. Save this text as %2\n"
      "3. Start OpenCode anew.",
      {directory, setup.configPath});
  // The plugin names the session itself; as a command line without it, this is what it runs.
  HookCommand(relay, AgentType::opencode, "").describe(setup, {working, waiting, idle, completed});
  return setup;
}

std::optional<CurrentSetup> CursorAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::cursor, "conversation_id", HookCommand::Process::none);
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"command", command.reporting(state)}}});
  };
  Json hooks = Json::object();
  hooks["beforeSubmitPrompt"] = hook(working);
  hooks["postToolUse"] = hook(working);
  hooks["stop"] = hook(idle);
  hooks["sessionEnd"] = hook(completed);

  CurrentSetup setup;
  setup.configPath = hooksPath();
  setup.snippet = written(Json{{"version", 1}, {"hooks", hooks}});
  setup.format = "json";
  setup.agentVersions = sentence("every Cursor that has hooks with the events postToolUse and sessionEnd");
  setup.instructions = mergeInstructions(
      setup.configPath, sentence("3. Keep the names of the events as they are: one that Cursor does not know "
                                 "makes it leave out the whole file."));
  command.describe(setup, {working, idle, completed});
  return setup;
}

std::optional<CurrentSetup> WindsurfAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::windsurf, "trajectory_id", HookCommand::Process::none);
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"command", command.reporting(state)}, {"show_output", false}}});
  };
  Json hooks = Json::object();
  hooks["pre_user_prompt"] = hook(working);
  hooks["post_run_command"] = hook(working);
  hooks["post_cascade_response"] = hook(idle);

  CurrentSetup setup;
  setup.configPath = hooksPath();
  setup.snippet = written(Json{{"hooks", hooks}});
  setup.format = "json";
  setup.agentVersions = sentence("every Windsurf that has Cascade hooks");
  setup.instructions =
      mergeInstructions(setup.configPath, sentence("3. Save the file and start Windsurf anew."));
  command.describe(setup, {working, idle});
  return setup;
}

std::optional<CurrentSetup> AntigravityAdapter::currentSetup(const RelayCall& relay) const {
  const HookCommand command(relay, AgentType::antigravity, "", HookCommand::Process::none);
  const auto hook = [&](AgentState state) {
    return Json::array({Json{{"type", "command"}, {"command", command.reporting(state)}, {"timeout", 5}}});
  };
  Json hooks = Json::object();
  hooks["PreInvocation"] = hook(working);
  hooks["Stop"] = hook(idle);

  CurrentSetup setup;
  setup.configPath = hooksPath();
  setup.snippet = written(Json{{"vimbrel", hooks}});
  setup.format = "json";
  setup.agentVersions = sentence("every Antigravity that has hooks");
  setup.instructions = mergeInstructions(
      setup.configPath, sentence("3. Check the file with a JSON tool: Antigravity leaves out a file with any "
                                 "error, without a word."));
  command.describe(setup, {working, idle});
  return setup;
}

std::optional<CurrentSetup> AiderAdapter::currentSetup(const RelayCall& relay) const {
  // On another machine its process is nothing that a scan of this one finds.
  const auto process = relay.socket.empty() ? HookCommand::Process::agent : HookCommand::Process::none;
  const HookCommand command(relay, AgentType::aider, "", process);
  CurrentSetup setup;
  setup.configPath = "~/.aider.conf.yml";
  setup.snippet = "notifications: true\nnotifications-command: " + quoted(command.reporting(waiting)) + "\n";
  setup.format = "yaml";
  setup.agentVersions = sentence("every Aider that has the option --notifications-command");
  setup.instructions = sentence(
      "1. Open %1 in your text editor, or create it.\n"
      "2. Add these two lines.\n"
      "3. Aider reports only that it is ready for your next prompt; that it works is seen from its "
      "process.",
      {setup.configPath});
  command.describe(setup, {waiting});
  return setup;
}

}  // namespace vimbrel
