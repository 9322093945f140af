// SPDX-License-Identifier: Apache-2.0
#include "Support/Subprocess.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

std::expected<SubprocessResult, SubprocessFault> shell(const std::string& script,
                                                       SubprocessBounds bounds = {}) {
  return runProgram("/bin/sh", {"-c", script}, bounds);
}

TEST(Subprocess, givesOutputAndExitStatus) {
  const auto result = shell("echo out; echo err >&2; exit 7");
  ASSERT_TRUE(result);
  EXPECT_EQ(result->output, "out\n");
  EXPECT_EQ(result->exitStatus, 7);
  EXPECT_EQ(shell("kill -TERM $$")->exitStatus, 128 + 15);
  EXPECT_EQ(runProgram("/no/such/program", {}).error(), SubprocessFault::cannotLaunch);
}

TEST(Subprocess, inheritsNoDescriptorAndNoInput) {
  const int leaked = open("/dev/null", O_RDONLY);  // NOLINT: without O_CLOEXEC on purpose
  ASSERT_GE(leaked, 0);
  const auto result = shell("cat; ls /proc/self/fd | wc -l");
  close(leaked);
  ASSERT_TRUE(result);
  // Standard input, output, error, and the directory that ls itself reads.
  EXPECT_EQ(result->output, "4\n");
}

TEST(Subprocess, killsTheWholeGroupAtItsBounds) {
  EXPECT_EQ(shell("sleep 1000 & sleep 1000", {.timeout = 50ms}).error(), SubprocessFault::timedOut);
  EXPECT_EQ(shell("while :; do echo xxxxxxxxxxxxxxxx; done").error(), SubprocessFault::tooMuchOutput);
}

}  // namespace
}  // namespace vimbrel
