// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/AgentRegistry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "AgentMachine.h"
#include "AgentMonitoring/Adapters/IntegrationStatusCodec.h"
#include "AgentMonitoring/Hooks/HookInstaller.h"
#include "AgentMonitoring/Hooks/LastHookEvents.h"
#include "Domain/StrictCodec.h"
#include "Support/VirtualTime.h"

namespace vimbrel {
namespace {

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

TEST(AgentRegistry, hasOneAdapterForEachAgentButCustom) {
  AgentMachine machine;
  AgentRegistry registry(machine.environment);
  for (const auto agent : allAgentTypes) {
    const auto adapter = registry.adapter(agent);
    ASSERT_EQ(adapter == nullptr, agent == AgentType::custom);
    if (!adapter) continue;
    EXPECT_EQ(adapter->agentType(), agent);
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
    return *registry.adapter(agent)->manualSetupSnippet("/bin/r");
  };
  EXPECT_THAT(snippet(AgentType::codex),
              EndsWith("\nnotify = [\"/bin/r\", \"--agent\", \"codex\", \"--state\", \"working\"]"));
  EXPECT_THAT(snippet(AgentType::opencode), HasSubstr("spawn('/bin/r', ['--agent', 'opencode', "));
  // A comment line, then one member of an object: each event with the state that it reports.
  const auto statesIn = [](const std::string& text) {
    std::string states;
    const auto document = json::parse("{" + text.substr(text.find('\n')) + "}");
    for (const auto& [event, entries] : document.at("hooks").items()) {
      const auto& entry = entries.at(0);
      const auto& hook = entry.contains("hooks") ? entry["hooks"][0] : entry;
      const auto command = hook.at("command").get<std::string>();
      EXPECT_THAT(command, StartsWith("/bin/r --agent "));
      states += event + command.substr(command.rfind(' ')) + "; ";
    }
    return states;
  };
  EXPECT_EQ(statesIn(snippet(AgentType::claude)),
            "PostToolExecution working; PreToolExecution working; SessionEnd completed; Stop idle; "
            "UserPromptSubmit working; ");
  EXPECT_EQ(statesIn(snippet(AgentType::gemini)),
            "AfterAgent idle; AfterTool working; BeforeAgent working; BeforeTool working; "
            "SessionEnd completed; SessionStart working; ");
}

TEST(IntegrationStatusCodec, keepsEveryFieldAndRefusesWhatIsNone) {
  IntegrationStatus status{.isInstalled = true,
                           .agentVersion = "2.1",
                           .integrationType = IntegrationType::plugin,
                           .isIntegrationActive = true,
                           .backupPath = "/b",
                           .statusMessage = "Plugin active"};
  const json full = toJson(status);
  EXPECT_EQ(integrationStatusFromJson(full), status);
  status.agentVersion.reset();
  status.backupPath.reset();
  EXPECT_EQ(integrationStatusFromJson(json(toJson(status))), status);
  requireStrictReading(full, toJson(status),
                       [](const json& read) { return integrationStatusFromJson(read).has_value(); });
  auto broken = full;
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
  std::filesystem::create_directories(folder);
  for (const auto* name : {"/.hidden", "/settings.json.1"}) std::ofstream(folder + name) << "x";
  EXPECT_THAT(HookInstaller::listBackups("claude"),
              testing::UnorderedElementsAre(folder + "/.hidden", folder + "/settings.json.1"));
  EXPECT_TRUE(HookInstaller::listBackups("claude/settings.json.1").empty()) << "a file is no folder";
  ::unsetenv("XDG_DATA_HOME");
}

TEST(LastHookEvents, outliveTheApplicationButNotItsTrials) {
  const TemporaryDirectory directory;
  ASSERT_EQ(::setenv("XDG_DATA_HOME", directory.path().c_str(), 1), 0);
  const auto path = directory.file("Vimbrel/last_events.json");
  const auto start = instantFromUnixSeconds(1'700'000'000);
  VirtualTime time(start);
  using Known = std::map<AgentType, LastHookEvent>;
  const auto hear = [](LastHookEvents& events, AgentType agent, AgentState state, const char* session) {
    HookEvent event;
    event.agent = agent;
    event.state = state;
    event.sessionId = session;
    events.record(event);
  };
  {
    LastHookEvents events(time, path);
    EXPECT_TRUE(events.all().empty());
    events.save();
    EXPECT_FALSE(std::filesystem::exists(path)) << "nothing new, nothing written";
    events.beginTrial("try");
    EXPECT_TRUE(events.isOnTrial("try"));
    hear(events, AgentType::codex, AgentState::working, "try");
    hear(events, AgentType::claude, AgentState::working, "a");
    time.advance(std::chrono::seconds(5));
    hear(events, AgentType::claude, AgentState::idle, "b");
    for (const auto* ended : {"try", "never begun"}) events.endTrial(ended);
    EXPECT_FALSE(events.isOnTrial("try"));
    EXPECT_EQ(events.all(), (Known{{AgentType::claude, {start + Seconds(5), AgentState::idle, 2}}}));
    hear(events, AgentType::codex, AgentState::waiting, "try");
    events.save();
  }
  const Known kept{{AgentType::claude, {start + Seconds(5), AgentState::idle, 0}},
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
    hear(events, AgentType::aider, AgentState::waiting, "c");
    events.save();
    EXPECT_EQ(LastHookEvents(time, path).all().size(), 1U) << broken;
  }
  ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace vimbrel
