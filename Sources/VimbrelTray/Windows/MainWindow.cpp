// SPDX-License-Identifier: Apache-2.0
#include "Windows/MainWindow.h"

#include <QBoxLayout>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QScreen>
#include <QTabBar>
#include <QTabWidget>
#include <nlohmann/json.hpp>

#include "Views/AvatarPicture.h"
#include "Views/Theme.h"
#include "Windows/AgentsPage.h"
#include "Windows/DiagnosticsPage.h"
#include "Windows/HistoryPage.h"
#include "Windows/SettingsPage.h"
#include "Windows/UsagePage.h"

namespace vimbrel::desktop {

std::optional<MainWindow::Page> MainWindow::pageFromName(const QString& name) {
  constexpr std::array names{"history", "usage", "agents", "settings", "diagnostics"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (name == names[i]) return static_cast<Page>(i);
  }
  return std::nullopt;
}

MainWindow::MainWindow(DesktopModel& model)
    : model_(model), banner_(new QLabel(this)), tabs_(new QTabWidget(this)) {
  setWindowTitle(tr("Vimbrel"));
  setObjectName("main");
  setWindowIcon(
      avatarIcon(VimbrelBlobAvatarProvider::frames({.state = VimbrelVisualState::working}).front()));
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(12, 12, 12, 12);
  banner_->setWordWrap(true);
  banner_->setTextFormat(Qt::PlainText);
  banner_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  banner_->setContentsMargins(8, 4, 8, 4);
  layout->addWidget(banner_);
  layout->addWidget(tabs_);
  tabs_->setDocumentMode(true);
  const auto add = [this](desktop::Page* page, const QString& title) {
    tabs_->addTab(page, title);
    connect(page, &desktop::Page::problem, this, &MainWindow::showProblem);
  };
  add(new HistoryPage(model), tr("History"));
  add(new UsagePage(model), tr("Usage"));
  add(new AgentsPage(model), tr("Agents"));
  add(new SettingsPage(model), tr("Settings"));
  add(new DiagnosticsPage(model), tr("Diagnostics"));
  connect(tabs_, &QTabWidget::currentChanged, this, &MainWindow::refreshCurrent);
  wasConnected_ = model_.situation().state.has_value();
  showProblem({});
  const auto em = fontMetrics().height();
  QSize size(em * 54, em * 42);
  if (const auto* screen = QGuiApplication::primaryScreen()) {
    size = size.boundedTo(screen->availableSize() - QSize(40, 60));
  }
  resize(size);
}

void MainWindow::openPage(Page page) {
  const bool isShownAnew = tabs_->currentIndex() == static_cast<int>(page);
  tabs_->setCurrentIndex(static_cast<int>(page));
  if (isShownAnew) refreshCurrent();
  show();
  raise();
  activateWindow();
}

void MainWindow::refreshCurrent() {
  showProblem({});
  if (model_.situation().state) static_cast<desktop::Page*>(tabs_->currentWidget())->refresh();
}

void MainWindow::takeSituation() {
  const bool isConnected = model_.situation().state.has_value();
  const bool hasChanged = isConnected != wasConnected_;
  wasConnected_ = isConnected;
  if (hasChanged) showProblem({});
  if (!isVisible()) return;
  if (hasChanged) refreshCurrent();
  static_cast<desktop::Page*>(tabs_->currentWidget())->takeSituation();
}

void MainWindow::showProblem(const QString& problem) {
  auto text = problem;
  if (!model_.situation().state) text = tr("Vimbrel is not running. What is shown here may be out of date.");
  banner_->setText(text);
  banner_->setVisible(!text.isEmpty());
  auto palette = banner_->palette();
  palette.setColor(QPalette::WindowText, Theme::current().warning);
  banner_->setPalette(palette);
  // The pages need the application for everything they do.
  for (int i = 0; i < tabs_->count(); ++i) tabs_->widget(i)->setEnabled(model_.situation().state.has_value());
}

void MainWindow::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape || event->matches(QKeySequence::Close)) {
    close();
    return;
  }
  QWidget::keyPressEvent(event);
}

}  // namespace vimbrel::desktop
