// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>
#include <array>
#include <optional>

#include "Client/DesktopModel.h"

class QLabel;
class QTabWidget;

namespace vimbrel::desktop {

class Page;

/// The window behind the popover: history, usage, agents, settings, diagnostics.
class MainWindow final : public QWidget {
  Q_OBJECT

 public:
  enum class Page : std::uint8_t { history, usage, agents, settings, diagnostics };
  [[nodiscard]] static std::optional<Page> pageFromName(const QString& name);

  explicit MainWindow(DesktopModel& model);
  void openPage(Page page);
  void takeSituation();
  void showProblem(const QString& problem);

 protected:
  void keyPressEvent(QKeyEvent* event) override;

 private:
  void refreshCurrent();

  DesktopModel& model_;
  QLabel* banner_;
  QTabWidget* tabs_;
  bool wasConnected_ = false;
};

}  // namespace vimbrel::desktop
