// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Control/ControlSocketPath.h"
#include "Say.h"
#include "Setup/HostSetup.h"
#include "Setup/SetupCommand.h"
#include "Terminal/StatusView.h"
#include "Terminal/Table.h"

namespace vimbrel {
namespace {

using nlohmann::json;

using Step = std::pair<std::string, std::string>;

void printSteps(const std::vector<Step>& steps, const Palette& palette) {
  Table table({"", ""});
  for (const auto& [command, meaning] : steps) table.addRow({{"  " + command, Tone::strong}, {meaning}});
  printLines(table.lines(outputWidth(STDOUT_FILENO), palette));
}

}  // namespace

int greetingCommand(const std::string& version) {
  const auto palette = Palette::forDescriptor(STDOUT_FILENO);
  printLines({say("%1 keeps this computer awake while AI coding agents work.",
                  {palette.paint(Tone::strong, "Vimbrel " + version)}),
              ""});
  auto client = ControlClient::connect(controlSocketPath());
  if (!client && client.error().fault != ControlClientError::Fault::notRunning)
    return reportFailure(client.error());
  if (!client) {
    const auto found = examineLoginStart();
    const bool isService = found.way == LoginStart::Way::service && found.canUseService;
    printLines(
        {palette.paint(Tone::warning, say("It does not run: nothing keeps this computer awake.")), ""});
    std::vector<Step> steps{
        {"vimbrel setup", say("start it at each login and connect your agents; asks before each step")},
        {"vimbrel run", say("start it here, until Ctrl-C")},
        {"vimbrel --help", say("everything else")}};
    if (isService)
      steps.insert(steps.begin(), {"systemctl --user start " + found.unit, say("start its service")});
    printSteps(steps, palette);
    return exitCode::done;
  }
  const auto state = client->call("status", json::object());
  if (!state) return reportFailure(state.error());
  printLines(statusLines(*state, outputWidth(STDOUT_FILENO), palette, currentTime()));
  std::puts("");
  std::vector<Step> steps{{"vimbrel watch", say("the same, live")},
                          {"vimbrel why", say("how each rule contributed to the decision")},
                          {"vimbrel --help", say("everything else")}};
  if (state->value("lastEvents", json::object()).empty()) {
    steps.insert(steps.begin(), {"vimbrel setup", say("connect your agents: none has reported yet")});
  }
  printSteps(steps, palette);
  return exitCode::done;
}

}  // namespace vimbrel
