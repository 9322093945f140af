// SPDX-License-Identifier: Apache-2.0
#include "Support/Directories.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <optional>

namespace vimbrel {
namespace {

/// The environment's variables for directories, put back in the end.
struct Directories : testing::Test {
  std::map<const char*, std::optional<std::string>> before;

  Directories() {
    for (const auto* name : {"HOME", "XDG_DATA_HOME", "XDG_CONFIG_HOME", "XDG_STATE_HOME"}) {
      const char* value = std::getenv(name);
      before[name] = value == nullptr ? std::nullopt : std::optional<std::string>(value);
      ::unsetenv(name);
    }
  }
  ~Directories() override {
    for (const auto& [name, value] : before) {
      value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
  }
};

TEST_F(Directories, followTheEnvironmentAndElseTheUsersHome) {
  const auto* user = ::getpwuid(::geteuid());
  ASSERT_TRUE(user != nullptr);
  EXPECT_EQ(directories::home(), user->pw_dir) << "no HOME, as under some service managers";
  ::setenv("HOME", "relative", 1);
  EXPECT_EQ(directories::home(), user->pw_dir);
  ::setenv("HOME", "/home/h", 1);
  EXPECT_EQ(directories::home(), "/home/h");
  EXPECT_EQ(directories::configuration(), "/home/h/.config");
  EXPECT_EQ(directories::state(), "/home/h/.local/state");
  EXPECT_EQ(directories::applicationSupport(), "/home/h/.local/share");
  ::setenv("XDG_CONFIG_HOME", "/c", 1);
  ::setenv("XDG_STATE_HOME", "/s", 1);
  ::setenv("XDG_DATA_HOME", "/d", 1);
  EXPECT_EQ(directories::configuration(), "/c");
  EXPECT_EQ(directories::state(), "/s");
  EXPECT_EQ(directories::applicationSupport(), "/d");
  ::setenv("XDG_CONFIG_HOME", "not/absolute", 1);
  ::setenv("XDG_DATA_HOME", "not/absolute", 1);
  EXPECT_EQ(directories::configuration(), "/home/h/.config");
  EXPECT_EQ(directories::applicationSupport(), "/home/h/.local/share");
}

}  // namespace
}  // namespace vimbrel
