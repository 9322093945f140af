// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "CapturedLog.h"
#include "ScopedEnvironment.h"
#include "Support/OwnFile.h"

namespace vimbrel {
namespace {

/// A home in a directory of its own, reached through a link as homes on another disk are.
struct WritePolicy : testing::Test {
  WritePolicy() {
    std::filesystem::create_directories(root + "/disk/u/.ssh");
    std::filesystem::create_directories(root + "/disk/u/.local/share/Vimbrel");
    std::filesystem::create_directory_symlink(root + "/disk/u", home);
  }
  ~WritePolicy() override { std::filesystem::remove_all(root); }
  static std::string newDirectory() {
    // Below /var/tmp: everything below /tmp/vimbrel… is the application's scratch space.
    char pattern[] = "/var/tmp/policy-XXXXXX";
    return ::mkdtemp(pattern);
  }
  const std::string root = newDirectory();
  const std::string home = root + "/home";
  const std::string data = home + "/.local/share/Vimbrel";
  ScopedEnvironment environment{{"HOME", home},          {"XDG_DATA_HOME", {}},   {"XDG_STATE_HOME", {}},
                                {"XDG_CONFIG_HOME", {}}, {"XDG_RUNTIME_DIR", {}}, {"TMPDIR", root + "/mine"}};
  CapturedLog log;
};

TEST_F(WritePolicy, allowsOnlyTheApplicationsOwnPlaces) {
  std::filesystem::create_symlink(home + "/.ssh", data + "/to-ssh");
  std::filesystem::create_symlink(home + "/.ssh/not-there-yet", data + "/dangling");
  std::filesystem::create_symlink(data + "/loop", data + "/loop");
  std::filesystem::create_symlink("../../../.ssh", data + "/relative");
  const std::vector<std::pair<std::string, bool>> cases{
      {data + "/usage.json", true},
      {data + "/../Vimbrel/./usage.json", true},
      {data + "/../elsewhere.json", false},
      {data + "/to-ssh/key", false},
      {data + "/relative/key", false},
      {data + "/dangling", false},
      {data + "/loop", false},
      {home + "/.local/state/Vimbrel/vimbrel.log", true},
      {"/tmp/vimbrel/x", true},
      {"/tmp/other", false},
      {"/var/run/vimbrel/vimbrel.sock", true},
      {root + "/mine/x", true},
      {home + "/.config/com.vimbrel.app.plist", true},
      {home + "/.config/com.other.plist", false},
      {home + "/.config/opencode/com.vimbrel.json", false},
      {home + "/Desktop/x", false},
      {"/etcetera", false},
      {"relative", false},
  };
  for (const auto& [path, allowed] : cases) EXPECT_EQ(VimbrelWritePolicy::mayWrite(path), allowed) << path;

  environment.set("TMPDIR", {});
  environment.set("XDG_RUNTIME_DIR", root + "/session/");
  EXPECT_TRUE(VimbrelWritePolicy::mayWrite(root + "/session/x"));
  EXPECT_FALSE(VimbrelWritePolicy::mayWrite(root + "/mine/x"));
}

TEST_F(WritePolicy, namesThePlaceThatItRefuses) {
  for (const auto& [path, said] : std::vector<std::pair<std::string, std::string>>{
           {home + "/.codex/config.toml", root + "/disk/u/.codex/config.toml"},
           {"/etc", "/etc"},
           {"/usr/x", "/usr/x"}}) {
    EXPECT_FALSE(VimbrelWritePolicy::mayWrite(path));
    EXPECT_TRUE(log.take().at(0).ends_with("Blocked write attempt to prohibited path: " + said)) << path;
  }
  const auto refused = VimbrelWritePolicy::assertCanWrite(home + "/Desktop/x");
  ASSERT_FALSE(refused);
  EXPECT_TRUE(refused.error().text().contains("Cannot write to '" + home + "/Desktop/x'"))
      << refused.error().text();
  EXPECT_TRUE(
      log.take().at(0).ends_with("Disallowed write to non-whitelisted path: " + root + "/disk/u/Desktop/x"));
}

TEST_F(WritePolicy, standsBeforeEveryOwnFile) {
  ASSERT_TRUE(replaceOwnFile(data + "/a/b/file", "x"));
  EXPECT_EQ(*readFile(data + "/a/b/file"), "x");
  const auto refused = replaceOwnFile(home + "/Desktop/x", "x");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), EPERM);
  EXPECT_FALSE(openOwnFile(home + "/.claude.json", 02));
  EXPECT_FALSE(std::filesystem::exists(home + "/Desktop")) << "nothing is made on the way to a refusal";
}

}  // namespace
}  // namespace vimbrel
