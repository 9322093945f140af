// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/DesktopApplications.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "ChildProcess.h"
#include "Platform/Linux/ApplicationScope.h"
#include "Support/VirtualTime.h"
#include "TemporaryDirectory.h"

namespace vimbrel {
namespace {

using std::chrono_literals::operator""s;

TEST(DesktopEntry, readsTheNameOfTheLocaleAndTheCommand) {
  constexpr std::string_view text =
      "# comment\n[Desktop Entry]\nType = Application\r\nName=Plain\nName[de]=Deutsch\n"
      "Name[de_AT@euro]=Euro\nName[fr]=Français\n"
      "Exec=\"/opt/My App/run \\\\\"x\\\\\"\" --flag=100%% %U plain\\sblank\nStartupWMClass=Win\n"
      "[Desktop Action New]\nName=Other\nExec=other\n";
  for (const auto& [locale, name] : {std::pair{"", "Plain"},
                                     {"C.UTF-8", "Plain"},
                                     {"de_DE.UTF-8", "Deutsch"},
                                     {"de_AT.UTF-8@euro", "Euro"},
                                     {"fr", "Français"},
                                     {"it_IT", "Plain"}}) {
    const auto entry = parseDesktopEntry(text, locale);
    ASSERT_TRUE(entry) << locale;
    EXPECT_EQ(entry->localizedName, name) << locale;
    EXPECT_EQ(entry->startupWindowClass, "Win");
    EXPECT_THAT(entry->command,
                testing::ElementsAre("/opt/My App/run \"x\"", "--flag=100%", "plain", "blank"));
  }
}

TEST(DesktopEntry, refusesWhatIsNoApplicationWithAWindow) {
  const std::string nameless = "[Desktop Entry]\nType=Application\nExec=n\n";
  const std::string good = nameless + "Name=N\n";
  ASSERT_TRUE(parseDesktopEntry(good, ""));
  for (const std::string& text :
       {std::string(), std::string("\xff\xfe\0x", 4), good + "Type=Link\n", good + "Terminal=true\n",
        nameless + "Name=\xff\n", nameless + "Name=" + std::string(300, 'x') + "\n",
        nameless + "Name=a\\nb\n", good + "Exec=%f\n", "[Other]\n" + good.substr(16),
        good + std::string(maximumDesktopEntryBytes, '#')}) {
    EXPECT_FALSE(parseDesktopEntry(text, "")) << text.substr(0, 200);
  }
  std::string arguments = good + "Exec=";
  for (int i = 0; i < 500; ++i) arguments += "a ";
  EXPECT_LE(parseDesktopEntry(arguments, "")->command.size(), 64U);
  EXPECT_TRUE(parseDesktopEntry("[Desktop Entry]\nHidden=true\n", "")->isHidden);
}

TEST(ApplicationScope, knowsTheUnitsOfDesktopsAndPackageSystems) {
  const std::tuple<const char*, const char*, std::int32_t> cases[] = {
      {"0::/user.slice/u.service/app.slice/app-gnome-code-1234.scope", "code", 1234},
      {"0::/a/app-gnome-firefox\\x2desr-77.scope/deeper/child", "firefox-esr", 77},
      {"0::/a/app-org.kde.konsole-a1b2.scope", "org.kde.konsole", 0},
      {"0::/a/app-cursor@0f1e.service", "cursor", 0},
      {"0::/a/app-flatpak-com.example.App-991.scope", "com.example.App", 991},
      {"12:pids:/x\n1:name=systemd:/a/app-KDE-kate-5.scope\n", "kate", 5},
      {"0::/a/snap.code.url-0ac6bd2c-9a0d-4bd4-a5cc-29ee9ef1b1a2.scope", "code_url", 0},
      {"0::/a/snap.code.code.0ac6bd2c-9a0d-4bd4-a5cc-29ee9ef1b1a2.scope", "code_code", 0},
  };
  for (const auto& [text, id, pid] : cases) {
    const auto scope = parseApplicationScope(text);
    ASSERT_TRUE(scope) << text;
    EXPECT_EQ(scope->applicationId, id);
    EXPECT_EQ(scope->mainPid, pid);
  }
  for (const char* text :
       {"", "\n", "0::/", "0::/user.slice/app.slice/dbus.service", "0::/app-gnome.slice", "0::/app-x.scope",
        "0::/app--1.scope", "5:cpu:/app-gnome-code-1234.scope", "0::/snap.x.scope", "0::/snap.scope",
        "0::/snap.service", "0::/snap..y.scope", "0::app-gnome-code-1.scope"}) {
    EXPECT_FALSE(parseApplicationScope(text)) << text;
  }
}

struct DesktopWorld : TemporaryDirectory {
  VirtualTime time{instantFromUnixSeconds(1'800'000'000)};
  std::shared_ptr<ProcessTable> table = std::make_shared<ProcessTable>(time);
  std::optional<DesktopApplications> applications;

  DesktopWorld() {
    std::filesystem::create_directories(file("applications/vendor"));
    applications.emplace(table, time,
                         DesktopEnvironment{{file("applications")}, "de_DE.UTF-8", {file("bin")}});
  }
  /// A program of its own at the given path.
  std::string program(const std::string& name) const {
    const auto path = file(name);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::copy_file(PATIENT_PROGRAM, path);
    return path;
  }
  void entry(const std::string& id, const std::string& name, const std::string& command) const {
    std::ofstream(file("applications/" + id + ".desktop"))
        << "[Desktop Entry]\nType=Application\nName=" << name << "\nExec=" << command << "\n";
  }
  /// A second passes; those of our applications that are listed, the rest of the machine left out.
  std::vector<RunningApplication> list() {
    time.advance(1s);
    auto all = applications->list();
    std::erase_if(all, [](const auto& one) { return !one.bundleIdentifier.starts_with("test."); });
    return all;
  }
};

TEST(DesktopApplications, recognisesProgramsOfInstalledApplicationsFromStartToEnd) {
  DesktopWorld world;
  const auto editor = world.program("share/cursor/cursor");
  const auto launcher = world.program("share/cursor/bin/cursor");
  std::filesystem::create_directories(world.file("bin"));
  std::filesystem::create_symlink(launcher, world.file("bin/cursor"));
  world.entry("test.cursor", "Cursor", "env A=b cursor %F");
  const auto other = world.program("opt/viewer");
  world.entry("vendor/test.viewer", "Ignored", other);
  world.entry("test.plain", "Viewer", other + " %U");
  EXPECT_TRUE(world.list().empty());

  ChildProcess first;
  first.exec({"cursor", "."}, editor);
  ChildProcess second;
  second.exec({"anything"}, other);
  const ChildProcess stranger;
  EXPECT_EQ(world.list(), (std::vector<RunningApplication>{{"Cursor", "test.cursor", first.pid()},
                                                           {"Viewer", "test.plain", second.pid()}}));
  first.end();
  EXPECT_EQ(world.list().size(), 1U);

  // Entries that come later are noticed, for processes that run already as well.
  const auto late = world.program("opt/late");
  ChildProcess third;
  third.exec({"late"}, late);
  EXPECT_EQ(world.list().size(), 1U);
  world.entry("test.late", "Late", late);
  for (int i = 0; i < 31; ++i) (void)world.list();
  EXPECT_EQ(world.list().back(), (RunningApplication{"Late", "test.late", third.pid()}));
}

TEST(DesktopApplications, countsAnInstanceOnceWhateverHelpersItHas) {
  DesktopWorld world;
  const auto editor = world.program("share/editor/editor");
  world.entry("test.editor", "Editor", editor);
  int helpers[2];
  ASSERT_EQ(::pipe(helpers), 0);
  // The main process and its helper execute the same program.
  ChildProcess main([&] {
    const pid_t helper = ::fork();
    if (helper == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::dup2(helpers[1], STDOUT_FILENO);
      ::execl(editor.c_str(), "editor", "--type=renderer", nullptr);
      ::_exit(1);
    }
  });
  main.exec({"editor"}, editor);
  char byte = 0;
  ASSERT_EQ(::read(helpers[0], &byte, 1), 1);
  const auto listed = world.list();
  ASSERT_EQ(listed.size(), 1U);
  EXPECT_EQ(listed[0].pid, main.pid());
}

}  // namespace
}  // namespace vimbrel
