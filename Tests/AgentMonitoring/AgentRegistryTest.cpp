// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/AgentRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "AgentMachine.h"
#include "AgentMonitoring/Adapters/IntegrationStatusCodec.h"
#include "AgentMonitoring/Hooks/HookInstaller.h"
#include "AgentMonitoring/Hooks/LastHookEvents.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using nlohmann::json;

TEST(AgentRegistry, hasOneAdapterForEachAgentButCustom) {
  AgentMachine machine;
  AgentRegistry registry(machine.environment);
  EXPECT_EQ(registry.allAdapters().size(), 8U);
  EXPECT_EQ(registry.adapter(AgentType::custom), nullptr);
  for (const auto agent : allAgentTypes) {
    const auto adapter = registry.adapter(agent);
    if (agent == AgentType::custom) continue;
    ASSERT_NE(adapter, nullptr);
    EXPECT_EQ(adapter->agentType(), agent);
    EXPECT_EQ(adapter->integrationType(), defaultIntegrationType(agent));
    EXPECT_EQ(adapter->manualSetupSnippet("/r").has_value(), adapter->targetConfigPath().has_value());
    EXPECT_TRUE(adapter->manualSetupInstructions());
  }
  const auto before = registry.adapter(AgentType::claude);
  registry.registerDefaultAdapters();
  EXPECT_EQ(registry.allAdapters().size(), 8U);
  EXPECT_NE(registry.adapter(AgentType::claude), before) << "registered anew, while the old one stays usable";
  EXPECT_EQ(before->agentType(), AgentType::claude);
}

TEST(AgentRegistry, keepsTheSnippetsOfEarlierVersionsAsTheyWere) {
  AgentMachine machine;
  const AgentRegistry registry(machine.environment);
  const auto snippet = [&](AgentType agent) {
    return *registry.adapter(agent)->manualSetupSnippet("/usr/local/bin/vimbrel-relay");
  };
  EXPECT_EQ(snippet(AgentType::codex),
            "# Add to the root level of ~/.codex/config.toml\n"
            "notify = [\"/usr/local/bin/vimbrel-relay\", \"--agent\", \"codex\", \"--state\", \"working\"]");
  // A comment line, then one member of an object.
  using States = std::map<std::string, std::string>;
  const auto statesIn = [](const std::string& text) {
    States states;
    const auto document = json::parse("{" + text.substr(text.find('\n')) + "}");
    for (const auto& [event, entries] : document.at("hooks").items()) {
      const auto& entry = entries.at(0);
      const auto& hook = entry.contains("hooks") ? entry["hooks"][0] : entry;
      EXPECT_EQ(hook.at("type"), "command");
      states[event] = hook.at("command").get<std::string>() + " " + hook.at("timeout").dump();
    }
    return states;
  };
  const auto call = [](const char* agent, const char* state, int timeout) {
    return std::string("/usr/local/bin/vimbrel-relay --agent ") + agent + " --state " + state + " " +
           std::to_string(timeout);
  };
  EXPECT_EQ(statesIn(snippet(AgentType::claude)),
            (States{{"UserPromptSubmit", call("claude", "working", 5000)},
                    {"PreToolExecution", call("claude", "working", 5000)},
                    {"PostToolExecution", call("claude", "working", 5000)},
                    {"Stop", call("claude", "idle", 5000)},
                    {"SessionEnd", call("claude", "completed", 5000)}}));
  EXPECT_EQ(statesIn(snippet(AgentType::gemini)),
            (States{{"BeforeAgent", call("gemini", "working", 10000)},
                    {"AfterAgent", call("gemini", "idle", 10000)},
                    {"BeforeTool", call("gemini", "working", 10000)},
                    {"AfterTool", call("gemini", "working", 10000)},
                    {"SessionStart", call("gemini", "working", 10000)},
                    {"SessionEnd", call("gemini", "completed", 10000)}}));
  EXPECT_THAT(snippet(AgentType::opencode),
              testing::HasSubstr("spawn('/usr/local/bin/vimbrel-relay', ['--agent', 'opencode', "));
}

TEST(IntegrationStatusCodec, keepsEveryFieldAndRefusesWhatIsNone) {
  IntegrationStatus status{.isInstalled = true,
                           .agentVersion = "2.1",
                           .integrationType = IntegrationType::plugin,
                           .isIntegrationActive = true,
                           .backupPath = "/b",
                           .statusMessage = "Plugin active"};
  EXPECT_EQ(
      toJson(status).dump(),
      R"({"isInstalled":true,"agentVersion":"2.1","integrationType":"plugin","isIntegrationActive":true,)"
      R"("backupPath":"/b","statusMessage":"Plugin active"})");
  EXPECT_EQ(integrationStatusFromJson(json(toJson(status))), status);
  status.agentVersion.reset();
  status.backupPath.reset();
  const json short_ = json(toJson(status));
  EXPECT_EQ(short_.size(), 4U) << "absent fields are left out";
  EXPECT_EQ(integrationStatusFromJson(short_), status);
  for (const auto& [key, value] : short_.items()) {
    auto broken = short_;
    broken.erase(key);
    EXPECT_FALSE(integrationStatusFromJson(broken)) << key;
    broken[key] = 7;
    EXPECT_FALSE(integrationStatusFromJson(broken)) << key;
  }
  auto broken = short_;
  broken["integrationType"] = "telepathy";
  EXPECT_FALSE(integrationStatusFromJson(broken));
}

TEST(HookInstaller, listsBackupsAndNeverMakesAny) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::setenv("XDG_DATA_HOME", directory.path().c_str(), 1), 0);
  EXPECT_EQ(HookInstaller::backupDirectory(), directory.file("Vimbrel/Backups"));
  EXPECT_TRUE(HookInstaller::listBackups("claude").empty());
  EXPECT_TRUE(std::filesystem::is_empty(directory.path())) << "looking creates nothing";

  const auto folder = HookInstaller::backupDirectory() + "/claude";
  std::filesystem::create_directories(folder + "/inner");
  std::ofstream(folder + "/.hidden") << "x";
  std::ofstream(folder + "/settings.json.1") << "x";
  EXPECT_THAT(
      HookInstaller::listBackups("claude"),
      testing::UnorderedElementsAre(folder + "/inner", folder + "/.hidden", folder + "/settings.json.1"));
  EXPECT_TRUE(HookInstaller::listBackups("claude/settings.json.1").empty()) << "a file is no folder";
  EXPECT_TRUE(HookInstaller::listBackups("codex").empty());
  ::unsetenv("XDG_DATA_HOME");
}

HookEvent eventOf(AgentType agent, AgentState state, std::string session) {
  HookEvent event;
  event.agent = agent;
  event.state = state;
  event.sessionId = std::move(session);
  return event;
}

TEST(LastHookEvents, outliveTheApplicationButNotItsTrials) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::setenv("XDG_DATA_HOME", directory.path().c_str(), 1), 0);
  const auto path = directory.file("Vimbrel/last_events.json");
  const auto start = instantFromUnixSeconds(1'700'000'000);
  VirtualTime time(start);
  {
    LastHookEvents events(time, path);
    EXPECT_TRUE(events.all().empty());
    events.save();
    EXPECT_FALSE(std::filesystem::exists(path)) << "nothing new, nothing written";
    events.beginTrial("try");
    EXPECT_TRUE(events.isOnTrial("try"));
    events.record(eventOf(AgentType::codex, AgentState::working, "try"));
    events.record(eventOf(AgentType::claude, AgentState::working, "a"));
    time.advance(std::chrono::seconds(5));
    events.record(eventOf(AgentType::claude, AgentState::idle, "b"));
    events.endTrial("try");
    EXPECT_FALSE(events.isOnTrial("try"));
    events.endTrial("never begun");
    EXPECT_EQ(
        events.all(),
        (std::map<AgentType, LastHookEvent>{{AgentType::claude, {start + Seconds(5), AgentState::idle, 2}}}));
    events.record(eventOf(AgentType::codex, AgentState::waiting, "try"));
    events.save();
  }
  const std::map<AgentType, LastHookEvent> kept{
      {AgentType::claude, {start + Seconds(5), AgentState::idle, 0}},
      {AgentType::codex, {start + Seconds(5), AgentState::waiting, 0}}};
  EXPECT_EQ(LastHookEvents(time, path).all(), kept);
  // What cannot be read costs itself only, and is replaced by what is heard next.
  std::ofstream(path) << R"({"claude":{"receivedAt":"2023-11-14T22:13:25Z","state":"idle"},"codex":7,)"
                         R"("gemini":{"receivedAt":"soon","state":"idle"},"nobody":{},)"
                         R"("aider":{"receivedAt":"2023-11-14T22:13:25Z","state":"asleep"}})";
  EXPECT_EQ(LastHookEvents(time, path).all().size(), 1U);
  for (const auto* broken : {"", "[", "[]", "null", "{\"claude\":"}) {
    std::ofstream(path) << broken;
    LastHookEvents events(time, path);
    EXPECT_TRUE(events.all().empty()) << broken;
    events.record(eventOf(AgentType::aider, AgentState::waiting, "c"));
    events.save();
    EXPECT_EQ(LastHookEvents(time, path).all().size(), 1U) << broken;
  }
  ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace vimbrel
