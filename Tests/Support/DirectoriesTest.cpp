// SPDX-License-Identifier: Apache-2.0
#include "Support/Directories.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "ScopedEnvironment.h"

namespace vimbrel {
namespace {

TEST(Directories, followTheEnvironmentAndElseTheUsersHome) {
  ScopedEnvironment environment{
      {"HOME", {}}, {"XDG_DATA_HOME", {}}, {"XDG_CONFIG_HOME", {}}, {"XDG_STATE_HOME", {}}};
  const auto* user = ::getpwuid(::geteuid());
  ASSERT_TRUE(user != nullptr);
  EXPECT_EQ(directories::home(), user->pw_dir) << "no HOME, as under some service managers";
  environment.set("HOME", "relative");
  EXPECT_EQ(directories::home(), user->pw_dir);
  environment.set("HOME", "/home/h");
  const struct {
    const char* variable;
    std::string (*directory)();
    const char* byDefault;
  } cases[] = {{"XDG_CONFIG_HOME", directories::configuration, "/home/h/.config"},
               {"XDG_STATE_HOME", directories::state, "/home/h/.local/state"},
               {"XDG_DATA_HOME", directories::applicationSupport, "/home/h/.local/share"}};
  for (const auto& [variable, directory, byDefault] : cases) {
    EXPECT_EQ(directory(), byDefault);
    environment.set(variable, "/d");
    EXPECT_EQ(directory(), "/d") << variable;
    environment.set(variable, "not/absolute");
    EXPECT_EQ(directory(), byDefault) << variable;
  }
}

}  // namespace
}  // namespace vimbrel
