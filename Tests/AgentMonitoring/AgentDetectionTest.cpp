// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <thread>

#include "AgentMachine.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using enum AgentType;
using testing::ElementsAre;

const std::string call = R"("/opt/v/vimbrel-relay --agent claude --state working")";

/// In one line: the version of what is installed, whether it is connected, and what people are told.
std::string summary(const IntegrationStatus& status) {
  return (status.isInstalled ? status.agentVersion.value_or("no version") : "-") +
         (status.isIntegrationActive ? " connected: " : ": ") + status.statusMessage;
}

TEST(AgentDetection, findsNothingOnAnEmptyMachine) {
  AgentMachine machine;
  for (const bool hasPath : {true, false}) {
    if (!hasPath) machine.environment.path.reset();
    const auto all = AgentRegistry(machine.environment).detectAll();
    ASSERT_EQ(all.size(), 8U);
    EXPECT_FALSE(all.contains(custom));
    for (const auto& [agent, found] : all) {
      EXPECT_EQ(found, (IntegrationStatus{.integrationType = defaultIntegrationType(agent),
                                          .statusMessage = "Not installed"}))
          << rawValue(agent);
    }
  }
}

TEST(AgentDetection, tellsWhatIsInstalledAndConnected) {
  const char* plugin = "home/.config/opencode/plugins/vimbrel.js";
  const char* bundled = "Applications/ChatGPT.app/Contents/Resources/codex";
  struct Case {
    AgentType agent;
    const char* program;
    const char* connection;  ///< a file that names the relay
    const char* expected;
  };
  const Case cases[] = {
      {claude, "bin/claude", "", "1.2.3: Installed (Hooks not configured)"},
      {claude, "home/.local/bin/claude", "", "1.2.3: Installed (Hooks not configured)"},
      {gemini, "opt/homebrew/bin/gemini", "", "1.2.3: Installed (Hooks not configured)"},
      {gemini, "bin/gemini", "home/.gemini/settings.json", "1.2.3 connected: Hook active"},
      {gemini, "", "home/.gemini/settings.json", "- connected: Not installed"},
      {codex, "", "home/.codex/config.toml", "Config present connected: Hook active"},
      {codex, bundled, "", "1.2.3: Installed (Hook not configured)"},
      {opencode, "home/.opencode/bin/opencode", "", "1.2.3: Installed (Plugin not configured)"},
      {opencode, "bin/opencode", plugin, "1.2.3 connected: Plugin active"},
      {opencode, "", plugin, "- connected: Not installed"},
      {aider, "bin/aider", "", "Installed: Installed (CLI executable detected)"},
  };
  for (const auto& [agent, program, connection, expected] : cases) {
    AgentMachine machine;
    if (*program != 0) machine.program(program, "printf ' 1.2.3\n\n'");
    if (*connection != 0) machine.write(connection, call);
    EXPECT_EQ(summary(machine.detect(agent)), expected) << program << " " << connection;
  }

  AgentMachine machine;
  machine.write("bin/claude", "#!/bin/sh\n");
  EXPECT_EQ(summary(machine.detect(claude)), "-: Not installed") << "a file that cannot be executed";
  machine.program("bin/codex", "exit 1");
  machine.environment.codexHome = machine.at("work/codex");
  machine.write("work/codex/config.toml");
  EXPECT_EQ(summary(machine.detect(codex)), "Config present: Installed (Hook not configured)");
  machine.write("work/codex/hooks.json", call);
  EXPECT_EQ(summary(machine.detect(codex)), "Config present connected: Hook active");
  machine.environment.path =
      machine.at("none") + "::" + machine.at("folder") + ":" + machine.at("bin") + ":" + machine.at("late");
  std::filesystem::create_directories(machine.at("folder/gemini"));
  machine.program("bin/gemini", "echo first");
  machine.program("late/gemini", "echo late");
  EXPECT_EQ(machine.detect(gemini).agentVersion, "first") << "on the search path";
}

TEST(AgentDetection, findsDesktopApplicationsWhereverTheirSystemsPutThem) {
  const std::map<AgentType, std::vector<const char*>> places{
      {cursor,
       {"home/.cursor", "usr/share/applications/cursor.desktop", "snap/cursor",
        "var/lib/flatpak/app/com.cursor.Cursor", "home/Applications/Cursor-1.7.28-x86_64.AppImage",
        "opt/cursor-1.7.AppImage"}},
      {windsurf,
       {"Applications/Windsurf.app", "usr/share/windsurf",
        "home/.local/share/applications/Windsurf-url-handler.desktop",
        "home/.local/share/flatpak/app/com.codeium.windsurf"}},
      {antigravity, {"home/.gemini/antigravity", "opt/antigravity", "opt/Antigravity"}},
  };
  for (const auto& [installed, paths] : places) {
    for (const auto* path : paths) {
      AgentMachine machine;
      machine.write(path);
      for (const auto agent : {cursor, windsurf, antigravity}) {
        EXPECT_EQ(summary(machine.detect(agent)),
                  agent == installed ? "Detected: Installed" : "-: Not installed")
            << path << " " << rawValue(agent);
      }
    }
  }
  AgentMachine machine;
  machine.run({"Terminal", "my CURSOR nightly"});
  EXPECT_EQ(summary(machine.detect(cursor)), "- connected: Running (Process signal)");
  EXPECT_EQ(summary(machine.detect(windsurf)), "-: Not installed");
  machine.program("bin/windsurf", "exec sleep 1000");
  machine.run({"Windsurf"});
  EXPECT_EQ(summary(machine.detect(windsurf)), "Detected connected: Running (Process signal)");
}

TEST(AgentDetection, boundsWhatAskingForAVersionTakes) {
  const std::tuple<const char*, const char*, std::optional<std::string>> cases[] = {
      {"hangs with what it started, which ignores signals",
       "trap '' TERM INT HUP; sleep 1000 & sleep 1000",
       {}},
      {"prints megabytes and ends", "head -c 4194304 /dev/zero | tr '\\0' x", {}},
      {"prints as much as is allowed", "head -c 4096 /dev/zero | tr '\\0' x", std::string(4096, 'x')},
      {"prints no text", "printf '\\377\\376 1.2'", {}},
      {"is killed", "echo 1.2.3; kill -9 $$", {}},
      {"prints on standard error only", "echo 1.2.3 >&2", ""},
      {"gets one argument", "echo $#$1", "1--version"},
      {"is in a session of its own, without a terminal",
       R"(set -- $(cat /proc/$$/stat); echo $(($6 == $$)) $7)", "1 0"},
      {"leaves a process behind", "sleep 1000 >/dev/null & echo 1.2.3", "1.2.3"},
  };
  for (const auto& [what, script, version] : cases) {
    AgentMachine machine;
    // Long enough for a busy machine to start a shell, short enough to wait for.
    const bool isBoundMet = std::string_view(what).starts_with("hangs");
    machine.environment.probeBounds.timeout = isBoundMet ? 100ms : 60s;
    machine.program("bin/claude", script);
    const auto found = machine.detect(claude);
    EXPECT_TRUE(found.isInstalled) << what;
    EXPECT_EQ(found.agentVersion, version) << what;
  }
  AgentMachine machine;
  machine.write("bin/claude", "#!/no/such/interpreter\n");
  std::filesystem::permissions(machine.at("bin/claude"), std::filesystem::perms::owner_all);
  EXPECT_EQ(machine.detect(claude).agentVersion, std::nullopt);
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
  const std::string hooks = R"({"hooks":{"Stop":[{"hooks":[{"type":"command","command":)" + call + "}]}]}}";
  const std::string deep(200'000, '[');
  struct Case {
    std::string contents;
    bool isConnected;
    AgentType agent = claude;
    std::string path = "home/.claude.json";
  };
  const std::string toml = "home/.codex/config.toml";
  const std::string json = "home/.codex/hooks.json";
  const std::string settings = "home/.gemini/settings.json";
  const std::string aiders = "home/.aider.conf.yml";
  for (const auto& [contents, isConnected, agent, path] : {
           Case{hooks, true},
           Case{hooks, true, claude, "home/.claude/settings.json"},
           Case{R"({"a":[{"hooks":1}],"hooks":{"x":)" + call + R"(},"b":{}})", true},
           Case{R"({"hooks":{"vimbrel-relay":1}})", true},
           Case{R"({"hooks":{"x":"vimbrel\u002drelay"}})", true},
           Case{R"({"hooks":{},"projects":{"p":)" + call + "}}", false},
           Case{R"({"projects":{"hooks":{"x":)" + call + "}}}", false},
           Case{R"({"hooks":)" + call + "}", false},
           Case{R"({"hooks":{"x":)" + call + R"(},"hooks":{}})", false},  // the last of two counts
           Case{"[" + hooks + "]", false},
           Case{hooks.substr(0, hooks.size() - 1), false},
           Case{"// mine\n" + hooks, false},
           Case{hooks + "}", false},
           Case{R"({"hooks":{"x":)" + call + ",\"y\":\"\xff\"}}", false},
           Case{R"({"hooks":{"x":)" + call + ",\"y\":" + deep, false},
           Case{R"({"hooks":{"y":)" + deep + std::string(deep.size(), ']') + ",\"x\":" + call + "}}", true},
           Case{hooks + std::string(std::size_t{17} << 20U, ' '), false},
           Case{std::string(4096, '\0'), false},
           Case{"notify = [\"/o/vimbrel-relay\"]\n", true, codex, toml},
           Case{"notify = [\"/o/vimbrel-relay", true, codex, toml},  // torn, as text
           Case{hooks, true, codex, json},
           Case{hooks + "\xc0", false, codex, json},
           Case{hooks.substr(0, 100), true, gemini, settings},  // the same
           Case{"{}", false, gemini, settings},
           Case{"", true, opencode, "home/.config/opencode/plugins/vimbrel.js"},
           Case{call, false, opencode, "home/.config/opencode/plugins/other.js"},
           Case{call, true, cursor, "home/.cursor/hooks.json"},
           Case{call, true, windsurf, "home/.codeium/windsurf/hooks.json"},
           Case{call, true, antigravity, "home/.gemini/config/hooks.json"},
           Case{"notifications-command: " + call, true, aider, aiders},
           Case{"notifications-command: bell", false, aider, aiders},
       }) {
    AgentMachine machine;
    machine.write(path, contents);
    EXPECT_EQ(machine.configuredIn(agent),
              std::vector<std::string>(isConnected ? 1 : 0, "~" + path.substr(4)))
        << path << ": " << contents.substr(0, 100);
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
  EXPECT_EQ(environment.dataHome, environment.home + "/.local/share") << "a relative one counts as unset";
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
