// SPDX-License-Identifier: Apache-2.0
#include "HelperOptions.h"

#include <gtest/gtest.h>

#include "ScopedEnvironment.h"

namespace vimbrel {
namespace {

TEST(HelperOptions, chooseThePathsOfTheirMode) {
  ScopedEnvironment environment{{"STATE_DIRECTORY", {}}, {"XDG_DATA_HOME", "/data"}};
  EXPECT_EQ(parseHelperOptions({})->socketPath, "/var/run/vimbrel-helper.sock");
  EXPECT_EQ(parseHelperOptions({})->stateFile, "/var/lib/vimbrel/deep-hold.json");
  EXPECT_EQ(parseHelperOptions({"--user"})->socketPath, "/data/Vimbrel/run/vimbrel-helper.sock");
  EXPECT_EQ(parseHelperOptions({"--user"})->stateFile, "/data/Vimbrel/deep-hold.json");
  environment.set("STATE_DIRECTORY", "/state:/other");
  EXPECT_EQ(parseHelperOptions({})->stateFile, "/state/deep-hold.json");
  EXPECT_EQ(parseHelperOptions({"--socket", "/s", "--state", "/f"})->stateFile, "/f");
}

TEST(HelperOptions, refuseWhatTheyDoNotKnow) {
  EXPECT_EQ(parseHelperOptions({"--socket"}).error(), "--socket needs a path");
  EXPECT_EQ(parseHelperOptions({"--state", ""}).error(), "--state needs a path");
  EXPECT_EQ(parseHelperOptions({"-x"}).error(), "unknown argument: -x");
}

}  // namespace
}  // namespace vimbrel
