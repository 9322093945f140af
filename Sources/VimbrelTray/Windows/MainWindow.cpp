// SPDX-License-Identifier: Apache-2.0
#include "Windows/MainWindow.h"

#include <QBoxLayout>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QScreen>
#include <QStackedWidget>
#include <QTabBar>
#include <QTabWidget>
#include <nlohmann/json.hpp>

#include "Views/AvatarPicture.h"
#include "Views/ToneLabel.h"
#include "Windows/AbsentView.h"
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
    : model_(model),
      stack_(new QStackedWidget(this)),
      absent_(new AbsentView(model)),
      banner_(new ToneLabel(Tone::warning)),
      tabs_(new QTabWidget) {
  setWindowTitle(tr("Vimbrel"));
  setObjectName("main");
  setWindowIcon(
      avatarIcon(VimbrelBlobAvatarProvider::frames({.state = VimbrelVisualState::working}).front()));
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(0, 0, 0, 0);
  outer->addWidget(stack_);
  auto* pages = new QWidget;
  auto* layout = new QVBoxLayout(pages);
  layout->setContentsMargins(12, 6, 12, 12);
  layout->setSpacing(6);
  banner_->setWordWrap(true);
  banner_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  banner_->setContentsMargins(8, 6, 8, 4);
  layout->addWidget(banner_);
  layout->addWidget(tabs_);
  stack_->addWidget(pages);
  stack_->addWidget(absent_);
  tabs_->setDocumentMode(true);
  const auto add = [this](desktop::Page* page, const QString& title) {
    tabs_->addTab(page, title);
    page->layout()->setContentsMargins(6, 12, 6, 4);
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
  QSize size(em * 58, em * 44);
  if (const auto* screen = QGuiApplication::primaryScreen()) {
    size = size.boundedTo(screen->availableSize() - QSize(40, 60));
  }
  resize(size);
}

desktop::Page* MainWindow::currentPage() const { return static_cast<desktop::Page*>(tabs_->currentWidget()); }

void MainWindow::openPage(Page page) {
  const bool isShownAnew = tabs_->currentIndex() == static_cast<int>(page);
  tabs_->setCurrentIndex(static_cast<int>(page));
  if (isShownAnew) refreshCurrent();
  show();
  raise();
  activateWindow();
}

void MainWindow::openIntroduction() {
  static_cast<AgentsPage*>(tabs_->widget(static_cast<int>(Page::agents)))->openIntroduction();
  openPage(Page::agents);
}

void MainWindow::refreshCurrent() {
  showProblem({});
  if (model_.situation().state) currentPage()->refresh();
}

void MainWindow::takeSituation() {
  const bool isConnected = model_.situation().state.has_value();
  const bool hasChanged = isConnected != wasConnected_;
  wasConnected_ = isConnected;
  absent_->takeSituation();
  if (hasChanged) showProblem({});
  if (!isVisible()) return;
  if (hasChanged) refreshCurrent();
  currentPage()->takeSituation();
}

void MainWindow::showProblem(const QString& problem) {
  const bool isConnected = model_.situation().state.has_value();
  stack_->setCurrentIndex(isConnected ? 0 : 1);
  absent_->showProblem(isConnected ? QString() : problem);
  banner_->setText(isConnected ? problem : QString());
  banner_->setVisible(isConnected && !problem.isEmpty());
}

void MainWindow::changeEvent(QEvent* event) {
  QWidget::changeEvent(event);
  // The colours of what the pages have in their lists and tables.
  if (event->type() == QEvent::PaletteChange && isVisible() && model_.situation().state) {
    currentPage()->restyle();
  }
}

void MainWindow::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Escape || event->matches(QKeySequence::Close)) {
    close();
    return;
  }
  QWidget::keyPressEvent(event);
}

}  // namespace vimbrel::desktop
