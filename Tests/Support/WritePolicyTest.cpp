// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "Support/Log.h"
#include "Support/OwnFile.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

/// A home in a directory of its own, reached through a link as homes on another disk are.
class WritePolicy : public testing::Test {
 protected:
  void SetUp() override {
    for (const char* name :
         {"HOME", "XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME", "TMPDIR", "XDG_RUNTIME_DIR"}) {
      const char* value = std::getenv(name);
      before_.emplace_back(name, value == nullptr ? "" : value);
      ::unsetenv(name);
    }
    // Below /var/tmp: everything below /tmp/vimbrel… is the application's scratch space.
    char pattern[] = "/var/tmp/policy-XXXXXX";
    root_ = ::mkdtemp(pattern);
    std::filesystem::create_directories(root_ + "/disk/u/.ssh");
    std::filesystem::create_directories(root_ + "/disk/u/.local/share/Vimbrel");
    std::filesystem::create_directory_symlink(root_ + "/disk/u", root_ + "/home");
    home_ = root_ + "/home";
    ::setenv("HOME", home_.c_str(), 1);
    logging::setSink(
        [this](LogLevel, std::string_view, std::string_view, std::string_view text) { log_ += text; });
  }
  void TearDown() override {
    logging::setSink({});
    std::filesystem::remove_all(root_);
    for (const auto& [name, value] : before_) {
      if (value.empty())
        ::unsetenv(name.c_str());
      else
        ::setenv(name.c_str(), value.c_str(), 1);
    }
  }
  std::string root_, home_, log_;
  std::vector<std::pair<std::string, std::string>> before_;
};

TEST_F(WritePolicy, allowsOnlyTheApplicationsOwnPlaces) {
  const auto data = home_ + "/.local/share/Vimbrel";
  std::filesystem::create_symlink(home_ + "/.ssh", data + "/to-ssh");
  std::filesystem::create_symlink(home_ + "/.ssh/not-there-yet", data + "/dangling");
  std::filesystem::create_symlink(data + "/loop", data + "/loop");
  ::setenv("TMPDIR", (root_ + "/mine").c_str(), 1);
  const std::vector<std::pair<std::string, bool>> cases{
      {data + "/usage.json", true},
      {data + "/../Vimbrel/./usage.json", true},
      {data + "/../elsewhere.json", false},
      {data + "/to-ssh/key", false},
      {data + "/dangling", false},
      {data + "/loop", false},
      {home_ + "/.local/state/Vimbrel/vimbrel.log", true},
      {"/tmp/vimbrel/x", true},
      {"/tmp/vimbrel-cache", true},
      {"/tmp/other", false},
      {"/var/run/vimbrel/vimbrel.sock", true},
      {root_ + "/mine/x", true},
      {home_ + "/.config/com.vimbrel.app.plist", true},
      {home_ + "/.config/com.other.plist", false},
      {home_ + "/.config/opencode/com.vimbrel.json", false},
      {home_ + "/.claudette", false},
      {home_ + "/Desktop/x", false},
      {"/etcetera", false},
      {"relative", false},
  };
  for (const auto& [path, allowed] : cases) EXPECT_EQ(VimbrelWritePolicy::mayWrite(path), allowed) << path;
}

TEST_F(WritePolicy, namesThePlaceThatItRefuses) {
  EXPECT_FALSE(VimbrelWritePolicy::mayWrite(home_ + "/.codex/config.toml"));
  EXPECT_EQ(log_, "Blocked write attempt to prohibited path: " + root_ + "/disk/u/.codex/config.toml");
  for (const auto* path : {"/etc", "/etc/hosts", "/bin/sh", "/usr"}) {
    log_.clear();
    EXPECT_FALSE(VimbrelWritePolicy::mayWrite(path));
    EXPECT_TRUE(log_.starts_with("Blocked write attempt to prohibited path: /")) << log_;
  }
  log_.clear();
  const auto refused = VimbrelWritePolicy::assertCanWrite(home_ + "/Desktop/x");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().text(),
            "Vimbrel write security violation: Cannot write to '" + home_ +
                "/Desktop/x'. Reason: Path is outside "
                "Vimbrel-owned directories. Third-party configuration modification is prohibited.");
  EXPECT_EQ(log_, "Disallowed write to non-whitelisted path: " + root_ + "/disk/u/Desktop/x");
}

TEST_F(WritePolicy, standsBeforeEveryOwnFile) {
  const auto inside = home_ + "/.local/share/Vimbrel/a/b/file";
  ASSERT_TRUE(replaceOwnFile(inside, "x"));
  EXPECT_EQ(*readFile(inside), "x");
  const auto refused = replaceOwnFile(home_ + "/Desktop/x", "x");
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), EPERM);
  EXPECT_FALSE(openOwnFile(home_ + "/.claude.json", 02));
  EXPECT_FALSE(std::filesystem::exists(home_ + "/Desktop")) << "nothing is made on the way to a refusal";
}

}  // namespace
}  // namespace vimbrel
