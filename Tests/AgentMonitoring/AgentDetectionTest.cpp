// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <functional>
#include <thread>

#include "AgentMachine.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using enum AgentType;
using testing::ElementsAre;

IntegrationStatus status(bool installed, std::optional<std::string> version, IntegrationType type,
                         bool active, std::string message) {
  return {.isInstalled = installed,
          .agentVersion = std::move(version),
          .integrationType = type,
          .isIntegrationActive = active,
          .statusMessage = std::move(message)};
}

TEST(AgentDetection, findsNothingOnAnEmptyMachine) {
  AgentMachine machine;
  for (const bool hasPath : {true, false}) {
    if (!hasPath) machine.environment.path.reset();
    const auto all = AgentRegistry(machine.environment).detectAll();
    ASSERT_EQ(all.size(), 8U);
    EXPECT_FALSE(all.contains(custom));
    for (const auto& [agent, found] : all) {
      EXPECT_EQ(found, status(false, {}, defaultIntegrationType(agent), false, "Not installed"))
          << rawValue(agent);
    }
  }
}

TEST(AgentDetection, tellsWhatIsInstalledAndConnected) {
  constexpr auto hook = IntegrationType::lifecycleHook;
  const std::string relay = "/usr/bin/vimbrel-relay --agent x";
  const struct {
    const char* what;
    AgentType agent;
    std::function<void(AgentMachine&)> setUp;
    IntegrationStatus expected;
  } cases[] = {
      {"on the search path", claude,
       [](auto& m) { m.program("bin/claude", "echo ' 2.1.0 (Claude Code)\n\n'"); },
       status(true, "2.1.0 (Claude Code)", hook, false, "Installed (Hooks not configured)")},
      {"at its installer's place", claude, [](auto& m) { m.program("home/.local/bin/claude"); },
       status(true, "1.2.3", hook, false, "Installed (Hooks not configured)")},
      {"first on the search path", gemini,
       [](auto& m) {
         m.environment.path = m.at("none") + "::" + m.at("folder") + ":" + m.at("bin") + ":" + m.at("late");
         std::filesystem::create_directories(m.at("folder/gemini"));
         m.program("bin/gemini", "echo first");
         m.program("late/gemini", "echo late");
       },
       status(true, "first", hook, false, "Installed (Hooks not configured)")},
      {"a file that cannot be executed", gemini, [](auto& m) { m.write("bin/gemini", "#!/bin/sh\n"); },
       status(false, {}, hook, false, "Not installed")},
      {"the fallback place", gemini, [](auto& m) { m.program("opt/homebrew/bin/gemini"); },
       status(true, "1.2.3", hook, false, "Installed (Hooks not configured)")},
      {"connected", gemini,
       [&](auto& m) {
         m.program("bin/gemini");
         m.write("home/.gemini/settings.json", relay);
       },
       status(true, "1.2.3", hook, true, "Hook active")},
      {"connected but gone", gemini, [&](auto& m) { m.write("home/.gemini/settings.json", relay); },
       status(false, {}, hook, true, "Not installed")},
      {"only its configuration", codex,
       [&](auto& m) { m.write("home/.codex/config.toml", "notify = ['" + relay); },
       status(true, "Config present", hook, true, "Hook active")},
      {"inside another application", codex,
       [](auto& m) { m.program("Applications/ChatGPT.app/Contents/Resources/codex"); },
       status(true, "1.2.3", hook, false, "Installed (Hook not configured)")},
      {"without a version, with a configuration", codex,
       [](auto& m) {
         m.program("bin/codex", "exit 1");
         m.write("home/.codex/config.toml");
       },
       status(true, "Config present", hook, false, "Installed (Hook not configured)")},
      {"elsewhere by its own variable", codex,
       [&](auto& m) {
         m.environment.codexHome = m.at("work/codex");
         m.write("work/codex/config.toml");
         m.write("work/codex/hooks.json", relay);
       },
       status(true, "Config present", hook, true, "Hook active")},
      {"plugin agent", opencode, [](auto& m) { m.program("home/.opencode/bin/opencode", "echo 0.15"); },
       status(true, "0.15", IntegrationType::plugin, false, "Installed (Plugin not configured)")},
      {"plugin there", opencode,
       [](auto& m) {
         m.program("bin/opencode", "echo 0.15");
         m.write("home/.config/opencode/plugins/vimbrel.js", "anything");
       },
       status(true, "0.15", IntegrationType::plugin, true, "Plugin active")},
      {"plugin without its agent", opencode,
       [](auto& m) { m.write("home/.config/opencode/plugins/vimbrel.js"); },
       status(false, {}, IntegrationType::plugin, true, "Not installed")},
      {"aider", aider, [](auto& m) { m.program("bin/aider", "exit 1"); },
       status(true, "Installed", IntegrationType::process, false, "Installed (CLI executable detected)")},
  };
  for (const auto& each : cases) {
    AgentMachine machine;
    each.setUp(machine);
    EXPECT_EQ(machine.detect(each.agent), each.expected)
        << each.what << ": " << machine.detect(each.agent).statusMessage << ", "
        << machine.detect(each.agent).agentVersion.value_or("-");
  }
}

TEST(AgentDetection, findsDesktopApplicationsWhereverTheirSystemsPutThem) {
  const struct {
    AgentType agent;
    const char* place;
  } places[] = {
      {cursor, "Applications/Cursor.app"},
      {cursor, "home/.cursor"},
      {windsurf, "Applications/Windsurf.app"},
      {windsurf, "home/.windsurf"},
      {antigravity, "Applications/Antigravity.app"},
      {antigravity, "Applications/Antigravity IDE.app"},
      {antigravity, "home/.gemini/antigravity"},
      {cursor, "usr/share/applications/cursor.desktop"},
      {windsurf, "home/.local/share/applications/Windsurf-url-handler.desktop"},
      {antigravity, "opt/antigravity"},
      {antigravity, "opt/Antigravity"},
      {windsurf, "usr/share/windsurf"},
      {cursor, "snap/cursor"},
      {cursor, "var/lib/flatpak/app/com.cursor.Cursor"},
      {windsurf, "home/.local/share/flatpak/app/com.codeium.windsurf"},
      {cursor, "home/Applications/Cursor-1.7.28-x86_64.AppImage"},
      {cursor, "home/Downloads/cursor.appimage"},
      {cursor, "opt/cursor-1.7.AppImage"},
  };
  constexpr auto process = IntegrationType::process;
  for (const auto& each : places) {
    AgentMachine machine;
    machine.write(each.place);
    for (const auto agent : {cursor, windsurf, antigravity}) {
      const bool isThis = agent == each.agent;
      EXPECT_EQ(machine.detect(agent), status(isThis, isThis ? std::optional("Detected") : std::nullopt,
                                              process, false, isThis ? "Installed" : "Not installed"))
          << each.place << " " << rawValue(agent);
    }
  }
  AgentMachine machine;
  machine.run({"Terminal", "my CURSOR nightly"});
  EXPECT_EQ(machine.detect(cursor), status(false, {}, process, true, "Running (Process signal)"));
  EXPECT_EQ(machine.detect(windsurf), status(false, {}, process, false, "Not installed"));
  machine.program("bin/windsurf", "exec sleep 1000");
  machine.run({"Windsurf"});
  EXPECT_EQ(machine.detect(windsurf), status(true, "Detected", process, true, "Running (Process signal)"));
}

TEST(AgentDetection, boundsWhatAskingForAVersionTakes) {
  const struct {
    const char* what;
    std::string script;
    std::optional<std::string> version;
  } cases[] = {
      {"hangs", "exec sleep 1000", {}},
      {"hangs with what it started, which ignores signals",
       "trap '' TERM INT HUP; sleep 1000 & sleep 1000",
       {}},
      {"prints without end", "while :; do echo 1.2.3; done", {}},
      {"prints megabytes and ends", "head -c 4194304 /dev/zero | tr '\\0' x", {}},
      {"prints no text", "printf '\\377\\376 1.2'", {}},
      {"fails", "echo 1.2.3; exit 3", {}},
      {"is killed", "echo 1.2.3; kill -9 $$", {}},
      {"prints nothing", "exit 0", ""},
      {"prints on standard error only", "echo 1.2.3 >&2", ""},
      {"prints as much as is allowed", "head -c 4096 /dev/zero | tr '\\0' x", std::string(4096, 'x')},
      {"gets one argument", "echo $#$1", "1--version"},
      {"reads its input", "cat; echo end", "end"},
      {"is in a session of its own, without a terminal",
       R"(set -- $(cat /proc/$$/stat); echo $(($6 == $$)) $7)", "1 0"},
      {"leaves a process behind", "sleep 1000 >/dev/null & echo 1.2.3", "1.2.3"},
  };
  for (const auto& each : cases) {
    AgentMachine machine;
    // Long enough for a busy machine to start a shell, short enough to wait for.
    const bool isBoundMet = std::string_view(each.what).starts_with("hangs");
    machine.environment.probeBounds.timeout = isBoundMet ? 100ms : 60s;
    machine.program("bin/claude", each.script);
    const auto found = machine.detect(claude);
    EXPECT_TRUE(found.isInstalled) << each.what;
    EXPECT_EQ(found.agentVersion, each.version) << each.what;
  }
  AgentMachine machine;
  machine.write("bin/claude", "#!/no/such/interpreter\n");
  std::filesystem::permissions(machine.at("bin/claude"), std::filesystem::perms::owner_all);
  EXPECT_EQ(machine.detect(claude).agentVersion, std::nullopt);
  EXPECT_EQ(machine.environment.probeBounds.timeout, 3s);
  EXPECT_EQ(machine.environment.probeBounds.maximumOutputBytes, 4096U);
}

TEST(AgentDetection, killsEverythingThatAProbeStarted) {
  AgentMachine machine;
  machine.environment.probeBounds.timeout = 60s;  // What it prints is too much long before.
  machine.program("bin/claude",
                  "sleep 1000 & echo $! > '" + machine.at("pid") + "'; while :; do echo 1.2.3; done");
  EXPECT_EQ(machine.detect(claude).agentVersion, std::nullopt);
  std::ifstream file(machine.at("pid"));
  pid_t pid = 0;
  ASSERT_TRUE(file >> pid);
  // Whoever adopts it reaps it; until then it is a zombie.
  const auto isGone = [&] {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(stat, text);
    return text.empty() || text.contains(") Z ");
  };
  for (int i = 0; i < 1000 && !isGone(); ++i) std::this_thread::sleep_for(5ms);
  EXPECT_TRUE(isGone()) << pid;
}

TEST(AgentDetection, runsSideBySide) {
  // Each of three agents answers only when the other two were asked: one after the other, none would.
  AgentMachine machine;
  machine.environment.probeBounds.timeout = 60s;
  for (const auto* name : {"claude", "codex", "gemini"}) {
    machine.program(
        std::string("bin/") + name,
        "cd '" + machine.at("") + "'; : > asked-$(basename $0); " +
            "until [ -e asked-claude ] && [ -e asked-codex ] && [ -e asked-gemini ]; do sleep 0.01; "
            "done; echo met");
  }
  const auto all = AgentRegistry(machine.environment).detectAll();
  for (const auto agent : {claude, codex, gemini}) EXPECT_EQ(all.at(agent).agentVersion, "met");
}

TEST(AgentDetection, findsTheRelayInOldAndNewPlacesAndInNothingBroken) {
  const std::string call = R"("/opt/v/vimbrel-relay --agent claude --state working")";
  const std::string hooks = R"({"hooks":{"Stop":[{"hooks":[{"type":"command","command":)" + call + "}]}]}}";
  const std::string deep(200'000, '[');
  struct Case {
    const char* what;
    AgentType agent;
    std::string path;
    std::string contents;
    bool isConnected;
  };
  std::vector<Case> cases;
  for (const auto* path : {"home/.claude.json", "home/.claude/settings.json"}) {
    for (const auto& each : std::vector<Case>{
             {"hooks", claude, "", hooks, true},
             {"among much else", claude, "", R"({"a":[{"hooks":1}],"hooks":{"x":)" + call + R"(},"b":{}})",
              true},
             {"as a key", claude, "", R"({"hooks":{"vimbrel-relay":1}})", true},
             {"escaped", claude, "", R"({"hooks":{"x":"vimbrel\u002drelay"}})", true},
             {"outside of the hooks", claude, "", R"({"hooks":{},"projects":{"p":)" + call + "}}", false},
             {"in inner hooks", claude, "", R"({"projects":{"hooks":{"x":)" + call + "}}}", false},
             {"in a list of hooks", claude, "", R"({"hooks":[)" + call + "]}", false},
             {"as the hooks", claude, "", R"({"hooks":)" + call + "}", false},
             {"the last of two counts", claude, "", R"({"hooks":{"x":)" + call + R"(},"hooks":{}})", false},
             {"a list", claude, "", "[" + hooks + "]", false},
             {"torn", claude, "", hooks.substr(0, hooks.size() - 1), false},
             {"a comment", claude, "", "// mine\n" + hooks, false},
             {"a comma too many", claude, "", R"({"hooks":{"x":)" + call + ",}}", false},
             {"text after the end", claude, "", hooks + "}", false},
             {"no UTF-8", claude, "", R"({"hooks":{"x":)" + call + ",\"y\":\"\xff\"}}", false},
             {"nested without end", claude, "", R"({"hooks":{"x":)" + call + ",\"y\":" + deep, false},
             {"nested deeply and closed", claude, "",
              R"({"hooks":{"y":)" + deep + std::string(deep.size(), ']') + ",\"x\":" + call + "}}", true},
             {"too large", claude, "", hooks + std::string(std::size_t{17} << 20U, ' '), false},
             {"empty", claude, "", "", false},
             {"zeros", claude, "", std::string(4096, '\0'), false},
         }) {
      cases.push_back(each);
      cases.back().path = path;
    }
  }
  for (const auto& each : std::vector<Case>{
           {"notify", codex, "home/.codex/config.toml", "notify = [\"/o/vimbrel-relay\"]\n", true},
           {"notify of another", codex, "home/.codex/config.toml", "notify = [\"bell\"]\n[a]\n", false},
           {"TOML that is torn, as text", codex, "home/.codex/config.toml", "notify = [\"/o/vimbrel-relay",
            true},
           {"hooks", codex, "home/.codex/hooks.json", hooks, true},
           {"no UTF-8", codex, "home/.codex/hooks.json", hooks + "\xc0", false},
           {"hooks", gemini, "home/.gemini/settings.json", hooks, true},
           {"JSON that is torn, as text", gemini, "home/.gemini/settings.json", hooks.substr(0, 100), true},
           {"of another", gemini, "home/.gemini/settings.json", "{}", false},
           {"plugin", opencode, "home/.config/opencode/plugins/vimbrel.js", "", true},
           {"plugin of another", opencode, "home/.config/opencode/plugins/other.js", call, false},
           {"hooks", cursor, "home/.cursor/hooks.json", call, true},
           {"hooks", windsurf, "home/.codeium/windsurf/hooks.json", call, true},
           {"hooks", antigravity, "home/.gemini/config/hooks.json", call, true},
           {"notification", aider, "home/.aider.conf.yml", "notifications-command: " + call, true},
           {"another notification", aider, "home/.aider.conf.yml", "notifications-command: bell", false},
       }) {
    cases.push_back(each);
  }
  for (const auto& each : cases) {
    AgentMachine machine;
    machine.write(each.path, each.contents);
    const auto shown = "~" + each.path.substr(4);
    const auto found = machine.configuredIn(each.agent);
    EXPECT_EQ(found, each.isConnected ? std::vector{shown} : std::vector<std::string>{})
        << each.what << " in " << each.path;
    if (defaultIntegrationType(each.agent) != IntegrationType::process) {
      EXPECT_EQ(machine.detect(each.agent).isIntegrationActive, each.isConnected)
          << each.what << " in " << each.path;
    }
  }
}

TEST(AgentDetection, passesOverWhatIsNoFile) {
  for (const auto& [agent, path] :
       {std::pair(claude, "home/.claude/settings.json"), std::pair(codex, "home/.codex/config.toml"),
        std::pair(gemini, "home/.gemini/settings.json")}) {
    AgentMachine machine;
    const auto file = machine.at(path);
    std::filesystem::create_directories(file);
    EXPECT_TRUE(machine.configuredIn(agent).empty()) << "a directory";
    std::filesystem::remove(file);
    ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
    EXPECT_TRUE(machine.configuredIn(agent).empty()) << "a pipe that nobody writes to";
    std::filesystem::remove(file);
    std::filesystem::create_symlink(file, file);
    EXPECT_TRUE(machine.configuredIn(agent).empty()) << "a link to itself";
    std::filesystem::remove(file);
    std::filesystem::create_symlink(machine.write("elsewhere", R"({"hooks":{"x":"vimbrel-relay"}})"), file);
    EXPECT_EQ(machine.configuredIn(agent).size(), 1U) << "a link to a configuration, as dotfiles are kept";
  }
}

TEST(AgentDetection, looksWhereTheUsersVariablesSay) {
  AgentMachine machine;
  std::map<std::string, std::string> variables{
      {"PATH", machine.at("bin")},
      {"XDG_CONFIG_HOME", machine.at("conf/")},
      {"XDG_DATA_HOME", "relative"},
      {"XDG_DATA_DIRS", "/a:/b"},
      {"CLAUDE_CONFIG_DIR", machine.at("cl") + "," + machine.at("old")},
      {"CODEX_HOME", machine.at("cx")}};
  const auto environment =
      AgentEnvironment::fromVariables([&](const char* name) -> std::optional<std::string> {
        const auto found = variables.find(name);
        return found == variables.end() ? std::nullopt : std::optional(found->second);
      });
  EXPECT_EQ(environment.path, machine.at("bin"));
  EXPECT_EQ(environment.configurationHome, machine.at("conf"));
  EXPECT_EQ(environment.dataHome, environment.home + "/.local/share") << "a relative one counts as unset";
  EXPECT_EQ(environment.claudeConfiguration, machine.at("cl"));
  EXPECT_EQ(environment.codexHome, machine.at("cx"));
  EXPECT_THAT(environment.applicationDirectories,
              testing::IsSupersetOf({environment.dataHome + "/applications", std::string("/a/applications"),
                                     std::string("/b/applications")}));
  for (const auto* name : AgentEnvironment::variableNames()) variables.erase(name);
  EXPECT_TRUE(variables.empty()) << "each variable that is read is announced";

  machine.environment = environment;
  machine.write("cl/settings.json", R"({"hooks":{"x":"vimbrel-relay"}})");
  machine.write("conf/opencode/plugins/vimbrel.js");
  EXPECT_THAT(machine.configuredIn(claude), ElementsAre(machine.at("cl/settings.json")));
  EXPECT_THAT(machine.configuredIn(opencode), ElementsAre(machine.at("conf/opencode/plugins/vimbrel.js")));
  const AgentRegistry registry(environment);
  const RelayCall relay{"/r", ""};
  EXPECT_EQ(registry.adapter(claude)->currentSetup(relay)->configPath, machine.at("cl/settings.json"));
  EXPECT_EQ(registry.adapter(codex)->currentSetup(relay)->configPath, machine.at("cx/hooks.json"));
  EXPECT_EQ(registry.adapter(opencode)->currentSetup(relay)->configPath,
            machine.at("conf/opencode/plugins/vimbrel.js"));
}

}  // namespace
}  // namespace vimbrel
