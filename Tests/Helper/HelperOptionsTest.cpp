// SPDX-License-Identifier: Apache-2.0
#include "HelperOptions.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace vimbrel {
namespace {

TEST(HelperOptions, chooseThePathsOfTheirMode) {
  ::unsetenv("STATE_DIRECTORY");
  ::setenv("XDG_DATA_HOME", "/data", 1);
  const auto system = parseHelperOptions({});
  ASSERT_TRUE(system);
  EXPECT_EQ(system->socketPath, "/var/run/vimbrel-helper.sock");
  EXPECT_EQ(system->stateFile, "/var/lib/vimbrel/deep-hold.json");
  const auto user = parseHelperOptions({"--user"});
  EXPECT_EQ(user->socketPath, "/data/Vimbrel/run/vimbrel-helper.sock");
  EXPECT_EQ(user->stateFile, "/data/Vimbrel/deep-hold.json");
  ::setenv("STATE_DIRECTORY", "/state:/other", 1);
  EXPECT_EQ(parseHelperOptions({})->stateFile, "/state/deep-hold.json");
  EXPECT_EQ(parseHelperOptions({"--socket", "/s", "--state", "/f"})->stateFile, "/f");
  ::unsetenv("STATE_DIRECTORY");
  ::unsetenv("XDG_DATA_HOME");
}

TEST(HelperOptions, refuseWhatTheyDoNotKnow) {
  EXPECT_EQ(parseHelperOptions({"--socket"}).error(), "--socket needs a path");
  EXPECT_EQ(parseHelperOptions({"--state", ""}).error(), "--state needs a path");
  EXPECT_EQ(parseHelperOptions({"-x"}).error(), "unknown argument: -x");
}

}  // namespace
}  // namespace vimbrel
