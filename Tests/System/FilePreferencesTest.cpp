// SPDX-License-Identifier: Apache-2.0
#include "System/FilePreferences.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <vector>

#include "CapturedLog.h"
#include "Simulation/DescriptorQueue.h"
#include "Support/AtomicFile.h"
#include "Support/Fd.h"
#include "Support/VirtualTime.h"
#include "System/SettingsStore.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;
using testing::Test;

class SettingsFile : public Test {
 protected:
  void write(const std::string& text) { std::ofstream(path) << text; }
  [[nodiscard]] std::string contents() const { return readFile(path).value_or("(none)"); }
  std::shared_ptr<FilePreferences> open() {
    return std::make_shared<FilePreferences>(path, settingDescriptions());
  }

  TemporaryDirectory directory;
  const std::string path = directory.file("settings.json");
  const SystemClock clock;
  CapturedLog log;
};

TEST_F(SettingsFile, fallsBackKeyByKeyWithOneWarningEach) {
  const std::vector<std::tuple<std::string, std::string, std::string>> cases{
      {"masterEnabled", R"("off")", "true or false; using true"},
      {"releaseDelaySeconds", R"("soon")", "a number; using 30.0"},
      {"batteryFloorPercent", "20.5", "a whole number; using 15"},
      {"batteryFloorPercent", "99999999999999999999", "a whole number; using 15"},
      {"batteryFloorPercent", "{\"deep\":[1,2]}", "a whole number; using 15"},
      {"pauseUntil", R"("tomorrow")", "a time such as \"2026-01-31T10:00:00Z\"; using null"},
  };
  for (const auto& [key, value, warning] : cases) {
    const auto text = "{\"" + key + "\": " + value + ", \"onlyOnAC\": true, \"unknown\": 7}";
    write(text);
    const auto preferences = open();
    const SettingsStore settings(preferences, clock);
    EXPECT_EQ(settings.value(key), findSetting(key)->defaultValue) << text;
    EXPECT_TRUE(settings.onlyOnAC()) << "its neighbours count all the same: " << text;
    ASSERT_EQ(settings.warnings().size(), 1U) << text;
    EXPECT_TRUE(settings.warnings()[0].ends_with(warning)) << settings.warnings()[0];
    preferences->reload();
    EXPECT_EQ(log.take(), std::vector{"error settings: " + settings.warnings()[0]});
    EXPECT_EQ(contents(), text) << "a read must not write";
  }
}

TEST_F(SettingsFile, keepsUnknownKeysAndOrderWhenItWrites) {
  write(R"({"zebra": {"a": null}, "onlyOnAC": false, "masterEnabled": true, "note": "für mich"})");
  SettingsStore settings(open(), clock);
  ASSERT_TRUE(settings.setOnlyOnAC(true));
  ASSERT_TRUE(settings.setPauseUntil(instantFromUnixSeconds(1'800'000'000.5)));
  auto onOneLine = contents();
  std::erase_if(onOneLine, [](char c) { return c == ' ' || c == '\n'; });
  EXPECT_EQ(onOneLine, R"({"zebra":{"a":null},"onlyOnAC":true,"masterEnabled":true,"note":"fürmich",)"
                       R"("pauseUntil":"2027-01-15T08:00:00.500Z"})");
  EXPECT_EQ(SettingsStore(open(), clock).pauseUntil(), instantFromUnixSeconds(1'800'000'000.5));
  ASSERT_TRUE(settings.resume());
  EXPECT_FALSE(contents().contains("pauseUntil"));
}

TEST_F(SettingsFile, keepsWhatItCannotReadAsideBeforeTheFirstWrite) {
  const std::vector<std::string> hostile{"",
                                         "not json",
                                         "[1,2]",
                                         "{\"masterEnabled\": false",
                                         "{\"onlyOnAC\": 1e999}",
                                         std::string("\xff\xfe\0", 3),
                                         std::string(200'000, '['),
                                         "{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}"};
  for (std::size_t i = 0; i < hostile.size(); ++i) {
    write(hostile[i]);
    SettingsStore settings(open(), clock);
    EXPECT_TRUE(settings.masterEnabled());
    EXPECT_EQ(settings.warnings().size(), 1U);
    EXPECT_EQ(contents(), hostile[i]);
    ASSERT_TRUE(settings.setOnlyOnAC(true));
    EXPECT_EQ(contents(), "{\n  \"onlyOnAC\": true\n}\n");
    EXPECT_EQ(readFile(path + ".unreadable-" + std::to_string(i + 1)), hostile[i]);
    EXPECT_TRUE(settings.warnings().empty());
  }
}

TEST_F(SettingsFile, keepsItsValuesThroughAnUnfinishedEdit) {
  write(R"({"batteryFloorPercent": 40})");
  const auto preferences = open();
  SettingsStore settings(preferences, clock);
  int announced = 0;
  const auto token = settings.objectWillChange().subscribe([&] { ++announced; });
  write(R"({"batteryFloorPercent": )");
  preferences->reload();
  EXPECT_EQ(settings.batteryFloorPercent(), 40);
  EXPECT_EQ(announced, 1) << "the warning is news, though no value is";
  preferences->reload();
  EXPECT_EQ(announced, 1);
  write(R"({"batteryFloorPercent": 40})");
  preferences->reload();
  EXPECT_EQ(announced, 2) << "and so is its end";
  write(R"({"batteryFloorPercent": 25})");
  preferences->reload();
  EXPECT_EQ(settings.batteryFloorPercent(), 25);
  EXPECT_TRUE(settings.warnings().empty());
  fs::remove(path);
  preferences->reload();
  EXPECT_EQ(settings.batteryFloorPercent(), 15);
}

TEST_F(SettingsFile, losesNoEditThatItHasNotNoticedYet) {
  write(R"({"batteryFloorPercent": 40})");
  SettingsStore settings(open(), clock);
  int announced = 0;
  const auto token = settings.objectWillChange().subscribe([&] { ++announced; });
  write(R"({"batteryFloorPercent": 25})");
  ASSERT_TRUE(settings.setOnlyOnAC(true));
  EXPECT_EQ(settings.batteryFloorPercent(), 25);
  EXPECT_EQ(announced, 2) << "one for the edit, one for the write";
}

TEST_F(SettingsFile, saysWhyAWriteFailedAndStaysAsItWas) {
  write(R"({"batteryFloorPercent": 40})");
  SettingsStore settings(open(), clock);
  int announced = 0;
  const auto token = settings.objectWillChange().subscribe([&] { ++announced; });

  // Files of no length stand in for a full disk.
  struct rlimit old{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
  const auto previous = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, old.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
  const auto full = settings.setBatteryFloorPercent(20);
  const auto reset = settings.resetToDefaults();
  ::setrlimit(RLIMIT_FSIZE, &old);
  std::signal(SIGXFSZ, previous);

  ASSERT_FALSE(full);
  EXPECT_EQ(full.error().text, "cannot write " + path + ": File too large");
  EXPECT_FALSE(reset);
  EXPECT_EQ(settings.batteryFloorPercent(), 40);
  EXPECT_EQ(contents(), R"({"batteryFloorPercent": 40})");
  EXPECT_EQ(announced, 0);
  EXPECT_EQ(std::distance(fs::directory_iterator(directory.path()), {}), 1) << "nothing is left behind";

  // A directory that cannot be: a file stands in its place.
  SettingsStore elsewhere(std::make_shared<FilePreferences>(path + "/settings.json", settingDescriptions()),
                          clock);
  EXPECT_TRUE(elsewhere.masterEnabled());
  EXPECT_FALSE(elsewhere.setMasterEnabled(false));
  EXPECT_TRUE(elsewhere.masterEnabled());
  EXPECT_FALSE(settings.setReleaseDelaySeconds(std::numeric_limits<double>::infinity()));
}

TEST_F(SettingsFile, isReplacedWhereALinkPointsTo) {
  fs::create_directory(directory.file("dotfiles"));
  std::ofstream(directory.file("dotfiles/settings.json")) << "{}";
  fs::create_symlink("dotfiles/settings.json", path);
  SettingsStore settings(open(), clock);
  ASSERT_TRUE(settings.setOnlyOnAC(true));
  EXPECT_TRUE(fs::is_symlink(path));
  EXPECT_EQ(readFile(directory.file("dotfiles/settings.json")), "{\n  \"onlyOnAC\": true\n}\n");
}

TEST_F(SettingsFile, isFoundAgainWhenItsDirectoryWasReplaced) {
  const auto above = directory.file("above");
  const auto own = above + "/Vimbrel";
  const auto deep = own + "/settings.json";
  const auto floor = [](int percent) { return "{\"batteryFloorPercent\": " + std::to_string(percent) + "}"; };
  int moves = 0;
  const auto elsewhere = [&] { return directory.file("old" + std::to_string(++moves)); };
  struct Case {
    std::string name;
    std::function<void()> go;
  };
  const std::vector<Case> cases{
      {"removed", [&] { fs::remove_all(own); }},
      {"removed with what is above", [&] { fs::remove_all(above); }},
      {"moved away", [&] { fs::rename(own, elsewhere()); }},
      {"moved away with what is above", [&] { fs::rename(above, elsewhere()); }},
      {"never missing", [&] { fs::rename(own, elsewhere()), fs::create_directories(own); }},
  };
  for (const bool isHeldOpen : {false, true}) {
    for (const auto& [name, go] : cases) {
      SCOPED_TRACE(name);
      ASSERT_TRUE(createDirectories(own));
      ASSERT_TRUE(replaceFile(deep, floor(33)));
      VirtualTime time{instantFromReferenceSeconds(1000)};
      const auto queue = std::make_shared<DescriptorQueue>(time.mainQueue());
      const auto notice = [&] {
        while (queue->poll()) time.runReady();
      };
      const auto preferences = std::make_shared<FilePreferences>(deep, settingDescriptions());
      preferences->watch(*queue);
      const SettingsStore settings(preferences, clock);
      EXPECT_EQ(settings.batteryFloorPercent(), 33);
      // A shell that stands in a directory keeps the kernel from telling of its end.
      const Fd shell(isHeldOpen ? ::open(own.c_str(), O_RDONLY | O_CLOEXEC) : -1);

      go();
      notice();
      EXPECT_EQ(settings.batteryFloorPercent(), 15);
      time.advance(std::chrono::seconds(5));
      ASSERT_TRUE(createDirectories(own));
      ASSERT_TRUE(replaceFile(deep, floor(20)));
      notice();
      time.advance(std::chrono::seconds(2));
      EXPECT_EQ(settings.batteryFloorPercent(), 20);
      ASSERT_TRUE(replaceFile(deep, floor(25)));
      notice();
      EXPECT_EQ(settings.batteryFloorPercent(), 25);
      EXPECT_EQ(time.scheduledCount(), 0U) << "nothing is looked for any more";

      go();
      ASSERT_TRUE(createDirectories(own));
      ASSERT_TRUE(replaceFile(deep, floor(30)));
      notice();
      time.advance(std::chrono::seconds(2));
      EXPECT_EQ(settings.batteryFloorPercent(), 30) << "replaced between two looks";
    }
  }
}

}  // namespace
}  // namespace vimbrel
