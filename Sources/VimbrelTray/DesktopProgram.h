// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>
#include <QTimer>
#include <memory>

#include "Client/DesktopModel.h"
#include "Client/DesktopPreferences.h"
#include "Popover/PopoverWindow.h"
#include "Views/MenuBarItem.h"
#include "Views/NotchWindow.h"
#include "Views/TrayHost.h"
#include "Windows/MainWindow.h"

namespace vimbrel::desktop {

/// How the program was asked to run.
struct DesktopOptions {
  enum class Colours { asDesktop, light, dark } colours = Colours::asDesktop;
  bool reduceMotion = false;
  QString open;  ///< "popover", "introduction" or a page of the window; empty for neither
};

/// The wiring of the desktop's program: the surfaces, and what flows between them and the model.
class DesktopProgram final : public QObject {
  Q_OBJECT

 public:
  DesktopProgram(DesktopOptions options, std::string socketPath);
  void start();
  /// Opens "popover", "introduction" or a page of the window.
  void open(const QString& what);

 private:
  void wireSurfaces();
  void showSituation();
  void showPopover();
  void refreshPopover();
  void fetchUsage();
  void choose(MenuAction action);
  MainWindow& window();
  void openPage(MainWindow::Page page);
  void openIntroduction();
  void applyPreferences();

  const DesktopOptions options_;
  DesktopModel model_;
  DesktopPreferences preferences_;
  TrayHost trayHost_;
  MenuBarItem item_;
  PopoverWindow popover_;
  NotchWindow notch_;
  std::unique_ptr<MainWindow> window_;  ///< made when it is first wanted
  QTimer tick_;                         ///< once a second while the popover is open
  int ticks_ = 0;
  bool wasOnboardingOffered_ = false;
};

}  // namespace vimbrel::desktop
