// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>
#include <array>
#include <optional>

#include "Client/DesktopModel.h"

class QStackedWidget;
class QTabWidget;

namespace vimbrel::desktop {

class AbsentView;
class Page;
class ToneLabel;

/// The window behind the popover: history, usage, agents, settings, diagnostics. While the application is not
/// running, it says so instead: there is nothing that it could show or change then.
class MainWindow final : public QWidget {
  Q_OBJECT

 public:
  enum class Page : std::uint8_t { history, usage, agents, settings, diagnostics };
  [[nodiscard]] static std::optional<Page> pageFromName(const QString& name);

  explicit MainWindow(DesktopModel& model);
  void openPage(Page page);
  /// The page of the agents, with the introduction above it.
  void openIntroduction();
  void takeSituation();
  void showProblem(const QString& problem);

 protected:
  void keyPressEvent(QKeyEvent* event) override;
  void changeEvent(QEvent* event) override;

 private:
  void refreshCurrent();
  [[nodiscard]] desktop::Page* currentPage() const;

  DesktopModel& model_;
  QStackedWidget* stack_;
  AbsentView* absent_;
  ToneLabel* banner_;
  QTabWidget* tabs_;
  bool wasConnected_ = false;
};

}  // namespace vimbrel::desktop
