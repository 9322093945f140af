// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QSocketNotifier>
#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <expected>
#include <span>

#include "CatalogueTranslator.h"
#include "Control/ControlSocketPath.h"
#include "DesktopProgram.h"
#include "SingleInstance.h"
#include "UserLanguage.h"
#include "Views/VimbrelStyle.h"

namespace {

using namespace vimbrel;
using namespace vimbrel::desktop;

int wakeup[2];

void onSignal(int /*number*/) {
  const char byte = 0;
  // Nothing can be done about a failure here, and one byte in the pipe is enough.
  [[maybe_unused]] const auto written = ::write(wakeup[1], &byte, 1);
}

/// Ends the program as the menu does, so that the item leaves the panel at once.
void followSignals(QApplication& application) {
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, wakeup) != 0) return;
  auto* notifier = new QSocketNotifier(wakeup[0], QSocketNotifier::Read, &application);
  QObject::connect(notifier, &QSocketNotifier::activated, &application, &QApplication::quit);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) std::signal(number, onSignal);
}

int fail(const QString& reason) {
  std::fprintf(stderr, "vimbrel-tray: %s\n", qUtf8Printable(QObject::tr("%1; see --help").arg(reason)));
  return 2;
}

constexpr std::array platformArguments{"platform", "display"};

bool isOneOf(std::span<const char* const> names, const QString& name) {
  return std::ranges::any_of(names, [&](const char* each) { return name == QLatin1String(each); });
}

/// "platform" of "-platform" and "--platform", as Qt reads them; empty for what is no option.
QString nameOf(const QString& argument) {
  return argument.startsWith('-') ? argument.mid(argument.startsWith("--") ? 2 : 1) : QString();
}

/// The arguments without those that Qt takes for itself once there is a display.
QStringList ownArguments() {
  static constexpr std::array alone{"reverse", "widgetcount", "nograb", "dograb"};
  static constexpr std::array withValue{"platformpluginpath",
                                        "platformtheme",
                                        "plugin",
                                        "session",
                                        "qwindowgeometry",
                                        "qwindowtitle",
                                        "geometry",
                                        "title",
                                        "qwindowicon",
                                        "icon",
                                        "style",
                                        "stylesheet",
                                        "name"};
  const auto arguments = QCoreApplication::arguments();
  QStringList own;
  for (qsizetype i = 0; i < arguments.size(); ++i) {
    const auto name = nameOf(arguments[i]);
    if (isOneOf(alone, name) || name.startsWith("style=") || name.startsWith("stylesheet=")) continue;
    if (isOneOf(withValue, name) || isOneOf(platformArguments, name)) {
      ++i;
    } else {
      own << arguments[i];
    }
  }
  return own;
}

/// Whether there is somewhere to look for a display. Qt aborts a program that has none.
bool mayHaveDisplay() {
  const auto arguments = QCoreApplication::arguments();
  return std::ranges::any_of(std::array{"DISPLAY", "WAYLAND_DISPLAY", "WAYLAND_SOCKET", "QT_QPA_PLATFORM"},
                             [](const char* name) { return !qEnvironmentVariableIsEmpty(name); }) ||
         std::ranges::any_of(
             arguments, [](const QString& argument) { return isOneOf(platformArguments, nameOf(argument)); });
}

/// The options, or the status with which the program ends. Needs no display.
std::expected<DesktopOptions, int> readOptions() {
  QCommandLineParser parser;
  parser.setApplicationDescription(
      QObject::tr("The desktop's view of Vimbrel: an item in the panel, a popover, and windows."));
  const auto help = parser.addHelpOption();
  const auto version = parser.addVersionOption();
  const QCommandLineOption theme(
      "theme", QObject::tr("Colours: \"light\", \"dark\", or as the desktop has them."), "THEME");
  const QCommandLineOption still("reduce-motion", QObject::tr("Show the avatar without animation."));
  const QCommandLineOption open(
      "open",
      QObject::tr(
          "Open the popover, the introduction or a page: history, usage, agents, settings, diagnostics."),
      "WHAT");
  parser.addOptions({theme, still, open});
  const auto refuse = [](const QString& reason) { return std::unexpected(fail(reason)); };
  if (!parser.parse(ownArguments())) {
    auto reason = parser.errorText();
    if (reason.endsWith('.')) reason.chop(1);
    return refuse(reason);
  }
  if (parser.isSet(help)) parser.showHelp();
  if (parser.isSet(version)) parser.showVersion();
  if (!parser.positionalArguments().isEmpty()) {
    return refuse(QObject::tr("\"%1\" is no option").arg(parser.positionalArguments().first()));
  }

  DesktopOptions options{.reduceMotion = parser.isSet(still), .open = parser.value(open)};
  const auto colours = parser.value(theme);
  if (colours == "light") {
    options.colours = DesktopOptions::Colours::light;
  } else if (colours == "dark") {
    options.colours = DesktopOptions::Colours::dark;
  } else if (!colours.isEmpty()) {
    return refuse(QObject::tr("--theme takes \"light\" or \"dark\", not \"%1\"").arg(colours));
  }
  if (!options.open.isEmpty() && options.open != "popover" && options.open != "introduction" &&
      !MainWindow::pageFromName(options.open)) {
    return refuse(QObject::tr("--open does not know \"%1\"").arg(options.open));
  }
  return options;
}

/// As `readOptions`, and refuses to go on where no window can be.
std::expected<DesktopOptions, int> prepare(int argc, char** argv) {
  // One that needs no display, so that what is wrong with the arguments can be said anywhere. It leaves them
  // to the next.
  QCoreApplication application(argc, argv);
  translateProgram(application);
  auto options = readOptions();
  if (options && !mayHaveDisplay()) {
    std::fprintf(
        stderr, "vimbrel-tray: %s\n",
        qUtf8Printable(QObject::tr("there is no display: neither DISPLAY nor WAYLAND_DISPLAY is set")));
    return std::unexpected(1);
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication::setApplicationName("vimbrel-tray");
  QCoreApplication::setApplicationVersion(VIMBREL_VERSION);
  useUserLanguage();
  auto options = prepare(argc, argv);
  if (!options) return options.error();

  QApplication::setDesktopSettingsAware(true);
  QApplication application(argc, argv);
  QApplication::setApplicationDisplayName("Vimbrel");
  QApplication::setDesktopFileName("vimbrel-tray");
  QApplication::setQuitOnLastWindowClosed(false);
  QApplication::setStyle(new VimbrelStyle);
  translateProgram(application);

  SingleInstance instance;
  if (!instance.isFirst()) {
    instance.askFirstToOpen(options->open.isEmpty() ? "popover" : options->open);
    return 0;
  }
  DesktopProgram program(std::move(*options), controlSocketPath());
  QObject::connect(&instance, &SingleInstance::openRequested, &program, &DesktopProgram::open);
  followSignals(application);
  program.start();
  return QApplication::exec();
}
