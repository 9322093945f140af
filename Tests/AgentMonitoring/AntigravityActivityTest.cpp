// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/AntigravityActivity.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <fstream>

#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

constexpr Instant now = instantFromUnixSeconds(1'800'000'000);
const std::vector<RunningApplication> antigravity{{"ANTIGRAVITY", "", 7}};

struct Home : TemporaryDirectory {
  [[nodiscard]] std::string brain() const { return file(".gemini/antigravity/brain"); }
  static void touch(const std::string& path, double age) {
    const double time = unixSeconds(now) - age;
    const auto whole = std::floor(time);
    const timespec both{static_cast<time_t>(whole), static_cast<long>((time - whole) * 1e9)};
    const timespec times[2] = {both, both};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }
  /// A conversation folder modified `folderAge` seconds ago, its transcript `transcriptAge` ago.
  void conversation(const std::string& name, double folderAge, double transcriptAge) const {
    const auto folder = brain() + "/" + name;
    std::filesystem::create_directories(folder + "/.system_generated/logs");
    const auto transcript = folder + "/.system_generated/logs/transcript.jsonl";
    std::ofstream(transcript) << "{}\n";
    touch(transcript, transcriptAge);
    touch(folder, folderAge);
  }
  [[nodiscard]] std::string_view activity() const {
    return checkAntigravityWorkingState(antigravity, path(), now).description;
  }
};

TEST(AntigravityActivity, followsTheAgeOfTheTranscript) {
  for (const auto& [age, expected] : {std::pair{-5.0, "Antigravity Agent (Active)"},
                                      {29.9, "Antigravity Agent (Active)"},
                                      {30.0, "Antigravity IDE (Waiting)"},
                                      {179.9, "Antigravity IDE (Waiting)"},
                                      {180.0, "Antigravity IDE (Idle)"}}) {
    const Home home;
    home.conversation("a", 0, age);
    EXPECT_EQ(home.activity(), expected) << age;
  }
  const Home home;
  home.conversation("a", 0, 40);
  EXPECT_EQ(checkAntigravityWorkingState(antigravity, home.path(), now),
            (AntigravityActivity{true, false, true, "Antigravity IDE (Waiting)"}));
}

TEST(AntigravityActivity, looksAtTheFiveNewestVisibleFoldersInTheirOrder) {
  const Home home;
  EXPECT_EQ(home.activity(), "Antigravity IDE (Idle)") << "no brain directory";
  for (int i = 0; i < 5; ++i) home.conversation("old" + std::to_string(i), 10 + i, 500);
  home.conversation("sixth", 100, 1);
  home.conversation(".hidden", 0, 1);
  EXPECT_EQ(home.activity(), "Antigravity IDE (Idle)");
  // The newest folder decides although an older one holds the fresher transcript.
  home.conversation("old0", 1, 60);
  home.conversation("old1", 2, 1);
  EXPECT_EQ(home.activity(), "Antigravity IDE (Waiting)");
  // A folder without a transcript is passed over, yet counts among the five.
  std::filesystem::remove_all(home.brain() + "/old0/.system_generated");
  Home::touch(home.brain() + "/old0", 1);
  EXPECT_EQ(home.activity(), "Antigravity Agent (Active)");
}

TEST(AntigravityActivity, isNotRunningWithoutTheApplication) {
  const Home home;
  home.conversation("a", 0, 1);
  const std::vector<RunningApplication> others{{std::nullopt, "org.example.gravity", 3}, {"Gemini", "", 4}};
  EXPECT_EQ(checkAntigravityWorkingState(others, home.path(), now),
            (AntigravityActivity{false, false, false, "Not running"}));
  const std::vector<RunningApplication> nameless{{std::nullopt, "com.google.AntiGravity", 3}};
  EXPECT_TRUE(checkAntigravityWorkingState(nameless, home.path(), now).isWorking);
}

}  // namespace
}  // namespace vimbrel
