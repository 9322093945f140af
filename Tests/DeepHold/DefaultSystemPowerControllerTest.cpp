// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DefaultSystemPowerController.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "LeaseStoreWorld.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

/// A stand-in for the platform's tool: notes its arguments and does what the test says.
class FakeTool {
 public:
  explicit FakeTool(const std::string& body) {
    const auto script = "#!/bin/sh\necho \"$@\" >> " + directory_.file("calls") + "\n" + body + "\n";
    EXPECT_TRUE(replaceFile(program(), script, 0755));
  }
  [[nodiscard]] std::string program() const { return directory_.file("tool"); }
  [[nodiscard]] std::string calls() const { return readFile(directory_.file("calls")).value_or(""); }

 private:
  TemporaryDirectory directory_;
};

TEST(DefaultSystemPowerController, findsTheSettingInTheToolsOutput) {
  const struct {
    const char* output;
    bool disabled;
  } cases[] = {{"Battery Power:\\n  \\tdisablesleep    1\\n sleep 1\\n", true},
               {" disablesleep 0\\n", false},
               {" disablesleep\\n1\\n", false},
               {" disablesleep 10\\n", false},
               {" sleep 1\\nnot disablesleep 1\\n", false},
               {" disablesleep 0\\r disablesleep\\t1", true},
               {" disablesleep 1\\n\\377", false},
               {"", false}};
  for (const auto& item : cases) {
    const FakeTool tool(std::string("printf '") + item.output + "'; exit 3");
    DefaultSystemPowerController controller(tool.program());
    EXPECT_EQ(controller.readSleepDisabled(), item.disabled) << item.output;
    EXPECT_EQ(tool.calls(), "-g custom\n");
  }
}

TEST(DefaultSystemPowerController, reportsWhetherTheToolObeyed) {
  const LogCapture log;
  const FakeTool willing("exit 0");
  EXPECT_TRUE(DefaultSystemPowerController(willing.program()).writeSleepDisabled(true));
  EXPECT_EQ(willing.calls(), "-a disablesleep 1\n");
  const FakeTool unwilling("exit 7");
  EXPECT_FALSE(DefaultSystemPowerController(unwilling.program()).writeSleepDisabled(false));
  EXPECT_EQ(unwilling.calls(), "-a disablesleep 0\n");
  DefaultSystemPowerController absent("/nonexistent/tool");
  EXPECT_FALSE(absent.writeSleepDisabled(true));
  EXPECT_FALSE(absent.readSleepDisabled());
  EXPECT_EQ(log.lines, (std::vector<std::string>{
                           "info Executed pmset -a disablesleep 1",
                           "error Failed to execute pmset -a disablesleep 0, status: 7",
                           "error Failed to execute pmset -a disablesleep 1, status: -1",
                           "error Cannot read the sleep setting: /nonexistent/tool did not run to its end"}));
}

}  // namespace
}  // namespace vimbrel
