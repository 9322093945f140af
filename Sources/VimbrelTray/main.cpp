// SPDX-License-Identifier: Apache-2.0
#include <sys/socket.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QSocketNotifier>
#include <csignal>
#include <cstdio>

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

}  // namespace

int main(int argc, char** argv) {
  QApplication::setDesktopSettingsAware(true);
  QApplication application(argc, argv);
  QApplication::setApplicationName("vimbrel-tray");
  QApplication::setApplicationDisplayName("Vimbrel");
  QApplication::setApplicationVersion(VIMBREL_VERSION);
  QApplication::setDesktopFileName("vimbrel-tray");
  QApplication::setQuitOnLastWindowClosed(false);
  QApplication::setStyle(new VimbrelStyle);

  useUserLanguage();
  translateProgram(application);

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
  if (!parser.parse(QApplication::arguments())) {
    auto reason = parser.errorText();
    if (reason.endsWith('.')) reason.chop(1);
    return fail(reason);
  }
  if (parser.isSet(help)) parser.showHelp();
  if (parser.isSet(version)) parser.showVersion();
  if (!parser.positionalArguments().isEmpty()) {
    return fail(QObject::tr("\"%1\" is no option").arg(parser.positionalArguments().first()));
  }

  DesktopOptions options{.reduceMotion = parser.isSet(still), .open = parser.value(open)};
  const auto colours = parser.value(theme);
  if (colours == "light") {
    options.colours = DesktopOptions::Colours::light;
  } else if (colours == "dark") {
    options.colours = DesktopOptions::Colours::dark;
  } else if (!colours.isEmpty()) {
    return fail(QObject::tr("--theme takes \"light\" or \"dark\", not \"%1\"").arg(colours));
  }
  if (!options.open.isEmpty() && options.open != "popover" && options.open != "introduction" &&
      !MainWindow::pageFromName(options.open)) {
    return fail(QObject::tr("--open does not know \"%1\"").arg(options.open));
  }

  SingleInstance instance;
  if (!instance.isFirst()) {
    instance.askFirstToOpen(options.open.isEmpty() ? "popover" : options.open);
    return 0;
  }
  DesktopProgram program(std::move(options), controlSocketPath());
  QObject::connect(&instance, &SingleInstance::openRequested, &program, &DesktopProgram::open);
  followSignals(application);
  program.start();
  return QApplication::exec();
}
