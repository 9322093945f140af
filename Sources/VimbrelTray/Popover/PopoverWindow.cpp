// SPDX-License-Identifier: Apache-2.0
#include "Popover/PopoverWindow.h"

#include <QBoxLayout>
#include <QCursor>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QTimer>
#include <algorithm>
#include <chrono>

#include "Popover/FamilyRowView.h"
#include "Popover/HeaderView.h"
#include "Popover/PowerView.h"
#include "Popover/UsageView.h"
#include "Views/Card.h"
#include "Views/SwitchButton.h"
#include "Views/Theme.h"
#include "Views/ToneLabel.h"
#include "Views/VimbrelStyle.h"
#include "Views/WindowSystem.h"

namespace vimbrel::desktop {
namespace {

constexpr int radius = 10;
/// A click on the item closes the popover before the item hears of it; it must not open it again.
constexpr qint64 sameClickMilliseconds = 250;

/// How long a window manager has to give the popover the focus.
constexpr auto focusPatience = std::chrono::milliseconds(150);

// No Qt::Popup: those are hidden from screen readers, and Wayland places them beside a parent only.
constexpr Qt::WindowFlags flags =
    Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::NoDropShadowWindowHint;

}  // namespace

PopoverWindow::PopoverWindow()
    : QWidget(nullptr, flags),
      page_(new QWidget),
      scroll_(new QScrollArea(this)),
      header_(new HeaderView(page_)),
      notices_(new ToneLabel(Tone::warning, page_)),
      offerBox_(new QWidget(page_)),
      offer_(new QPushButton(offerBox_)),
      families_(new QVBoxLayout),
      power_(new PowerView(page_)),
      usage_(new UsageView(page_)),
      running_(new QWidget(page_)) {
  if (isComposited()) setAttribute(Qt::WA_TranslucentBackground);
  setWindowTitle(tr("Vimbrel"));
  setObjectName("popover");
  auto* outer = new QVBoxLayout(this);
  outer->setContentsMargins(6, 8, 6, 6);
  outer->setSpacing(4);
  outer->addWidget(scroll_);
  scroll_->setWidget(page_);
  scroll_->setWidgetResizable(true);
  scroll_->setFrameShape(QFrame::NoFrame);
  scroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  scroll_->setFocusPolicy(Qt::NoFocus);
  scroll_->viewport()->setAutoFillBackground(false);
  page_->setAutoFillBackground(false);

  auto* column = new QVBoxLayout(page_);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(4);
  column->addWidget(header_);
  notices_->setWordWrap(true);
  notices_->setContentsMargins(10, 0, 10, 4);
  column->addWidget(notices_);
  families_->setSpacing(2);
  column->addLayout(families_);
  VimbrelStyle::makePrimary(*offer_);
  auto* offerRow = new QHBoxLayout(offerBox_);
  offerRow->setContentsMargins(10, 4, 10, 8);
  offerRow->addWidget(offer_);
  column->addWidget(offerBox_);
  connect(offer_, &QPushButton::clicked, this, [this] {
    const bool isStart = content_.offer == PopoverContent::Offer::start;
    Q_EMIT chosen(isStart ? MenuAction::startApplication : MenuAction::agents);
  });

  auto* inner = new QVBoxLayout(running_);
  inner->setContentsMargins(0, 0, 0, 0);
  inner->setSpacing(4);
  inner->addWidget(new Divider(running_));
  inner->addWidget(power_);
  inner->addWidget(new Divider(running_));
  inner->addWidget(usage_);
  inner->addWidget(new Divider(running_));
  inner->addWidget(makeSwitches());
  column->addWidget(running_);
  column->addStretch(1);
  outer->addWidget(new Divider(this));
  outer->addWidget(makeFooter());
}

QWidget* PopoverWindow::makeSwitches() {
  auto* box = new QWidget(running_);
  auto* column = new QVBoxLayout(box);
  column->setContentsMargins(0, 0, 0, 0);
  column->setSpacing(0);
  const auto add = [&](const QString& text, const char* key) {
    auto* button = new SwitchButton(text, box);
    connect(button, &SwitchButton::changeRequested, this,
            [this, key](bool on) { Q_EMIT settingRequested(key, on); });
    column->addWidget(button);
    return button;
  };
  master_ = add(tr("Protection"), "masterEnabled");
  hold_ = add(tr("Keep awake now"), "manualHoldEnabled");
  display_ = add(tr("Keep the display on too"), "preventDisplaySleep");

  pauses_ = new QWidget(box);
  auto* row = new QHBoxLayout(pauses_);
  row->setContentsMargins(10, 6, 10, 6);
  auto* label = new QLabel(tr("Pause"), pauses_);
  row->addWidget(label);
  row->addStretch(1);
  const auto addPause = [&](const QString& text, const QString& name, MenuAction action) {
    auto* button = new QPushButton(text, pauses_);
    button->setAccessibleName(name);
    connect(button, &QPushButton::clicked, this, [this, action] { Q_EMIT chosen(action); });
    row->addWidget(button);
  };
  addPause(tr("15 min"), tr("Pause for 15 minutes"), MenuAction::pauseQuarterHour);
  addPause(tr("1 h"), tr("Pause for 1 hour"), MenuAction::pauseHour);
  addPause(tr("Tomorrow"), tr("Pause until tomorrow"), MenuAction::pauseUntilTomorrow);
  column->addWidget(pauses_);
  resume_ = new QPushButton(tr("Resume"), box);
  connect(resume_, &QPushButton::clicked, this, [this] { Q_EMIT chosen(MenuAction::resume); });
  auto* resumeRow = new QHBoxLayout;
  resumeRow->setContentsMargins(10, 6, 10, 6);
  resumeRow->addWidget(resume_);
  column->addLayout(resumeRow);
  return box;
}

QWidget* PopoverWindow::makeFooter() {
  auto* footer = new QWidget(this);
  auto* row = new QHBoxLayout(footer);
  row->setContentsMargins(0, 0, 0, 0);
  row->setSpacing(2);
  const auto add = [&](const QString& text, MenuAction action) {
    auto* button = new QPushButton(text, footer);
    button->setFlat(true);
    connect(button, &QPushButton::clicked, this, [this, action] {
      close();
      Q_EMIT chosen(action);
    });
    row->addWidget(button);
  };
  add(tr("History"), MenuAction::history);
  add(tr("Agents"), MenuAction::agents);
  add(tr("Settings"), MenuAction::settings);
  add(tr("Diagnostics"), MenuAction::diagnostics);
  return footer;
}

void PopoverWindow::setContent(const PopoverContent& content, Instant now) {
  if (!hasContent_ || content != content_) {
    hasContent_ = true;
    content_ = content;
    header_->setContent(content);
    showNotices();
    showFamilies(content.families);
    offerBox_->setVisible(content.offer != PopoverContent::Offer::nothing);
    offer_->setEnabled(content.offer != PopoverContent::Offer::waitForStart);
    offer_->setText(QString::fromStdString(content.offerText));
    running_->setVisible(!content.isAbsent);
    power_->setLine(content.power);
    master_->setChecked(content.masterEnabled);
    hold_->setChecked(content.manualHoldEnabled);
    display_->setChecked(content.preventDisplaySleep);
    pauses_->setVisible(!content.display.isPaused);
    resume_->setVisible(content.display.isPaused);
    fitSoon();
  }
  header_->showElapsed(now);
}

void PopoverWindow::setChart(const UsageChart& chart) {
  usage_->setChart(chart);
  fitSoon();
}

void PopoverWindow::render(const VimbrelDisplayState& /*state*/) {
  // The header draws it, as part of the content that is made from the same state.
}

void PopoverWindow::showProblem(const QString& problem) {
  problem_ = problem;
  showNotices();
  fitSoon();
}

void PopoverWindow::showNotices() {
  QStringList lines;
  if (!problem_.isEmpty()) lines << problem_;
  for (const auto& notice : content_.notices) lines << QString::fromStdString(notice);
  notices_->setText(lines.join("\n"));
  notices_->setVisible(!lines.isEmpty());
}

/// A row that stays keeps its place, its focus and whether it is open.
void PopoverWindow::showFamilies(const std::vector<FamilyRow>& families) {
  std::vector<FamilyRowView*> kept;
  for (const auto& family : families) {
    auto found = std::ranges::find(rows_, family.agent, &FamilyRowView::agent);
    FamilyRowView* view = nullptr;
    if (found != rows_.end()) {
      view = *found;
      rows_.erase(found);
    } else {
      view = new FamilyRowView(page_);
      connect(view, &QAbstractButton::toggled, this, &PopoverWindow::fitSoon);
    }
    view->setRow(family);
    families_->insertWidget(static_cast<int>(kept.size()), view);
    kept.push_back(view);
  }
  for (auto* gone : rows_) {
    families_->removeWidget(gone);
    gone->deleteLater();
  }
  rows_ = std::move(kept);
  QWidget* before = header_;
  for (auto* row : rows_) {
    setTabOrder(before, row);
    before = row;
  }
}

QRect PopoverWindow::screenArea() const {
  const auto* screen = QGuiApplication::screenAt(item_.isValid() ? item_.center() : QCursor::pos());
  if (screen == nullptr) screen = QGuiApplication::primaryScreen();
  return screen == nullptr ? QRect(0, 0, 800, 600) : screen->availableGeometry();
}

/// As high as its content, on the screen, beside the item.
void PopoverWindow::fit() {
  if (!isVisible() && !testAttribute(Qt::WA_WState_ExplicitShowHide)) return;
  const auto area = screenArea();
  const int width = std::min(std::max(fontMetrics().averageCharWidth() * 56, 384), area.width() - 16);
  layout()->activate();
  page_->layout()->activate();
  const auto margins = layout()->contentsMargins();
  const int inner = width - margins.left() - margins.right();
  const int page = page_->layout()->hasHeightForWidth() ? page_->layout()->totalHeightForWidth(inner)
                                                        : page_->sizeHint().height();
  const int footer = layout()->itemAt(1)->sizeHint().height() + layout()->itemAt(2)->sizeHint().height();
  const int wanted = page + footer + margins.top() + margins.bottom() + 2 * layout()->spacing();
  const int height = std::min(wanted, area.height() - 16);
  const QRect anchor = item_.isValid() ? item_ : QRect(QCursor::pos(), QSize(1, 1));
  const bool isBelow = anchor.center().y() < area.center().y();
  int x = anchor.center().x() - width / 2;
  int y = isBelow ? anchor.bottom() + 6 : anchor.top() - height - 6;
  x = std::clamp(x, area.left() + 8, std::max(area.right() - width - 7, area.left() + 8));
  y = std::clamp(y, area.top() + 4, std::max(area.bottom() - height - 3, area.top() + 4));
  const QRect place(x, y, width, height);
  if (place != geometry()) {
    setFixedSize(place.size());
    move(place.topLeft());
  }
  if (!isComposited()) {
    QPainterPath shape;
    shape.addRoundedRect(rect(), radius, radius);
    setMask(QRegion(shape.toFillPolygon().toPolygon()));
  }
}

/// At once as far as that is known, and again when the layouts within layouts have heard of the change.
void PopoverWindow::fitSoon() {
  fit();
  QTimer::singleShot(0, this, &PopoverWindow::fit);
}

void PopoverWindow::toggleAt(const QRect& item) {
  if (isVisible()) return closeByClick();
  if (sinceClick_.isValid() && sinceClick_.elapsed() < sameClickMilliseconds) return;
  openAt(item);
}

void PopoverWindow::openAt(const QRect& item) {
  // Without the item's place the popover stays where it was opened, though the mouse moves on.
  item_ = item.isValid() && !item.isEmpty() ? item : QRect(QCursor::pos(), QSize(1, 1));
  problem_.clear();
  showNotices();
  setAttribute(Qt::WA_WState_ExplicitShowHide);
  fit();
  show();
  raise();
  activateWindow();
  QTimer::singleShot(focusPatience, this, [this] {
    if (isVisible() && !isActiveWindow()) takeInputFocus(winId());
  });
}

void PopoverWindow::closeByClick() {
  sinceClick_.restart();
  close();
}

bool PopoverWindow::event(QEvent* event) {
  if (event->type() == QEvent::WindowDeactivate && isVisible()) closeByClick();
  return QWidget::event(event);
}

void PopoverWindow::keyPressEvent(QKeyEvent* event) {
  switch (event->key()) {
    case Qt::Key_Escape:
      close();
      // It lost the focus by this, as it does by a click elsewhere; but a click that comes now is a new one.
      sinceClick_.invalidate();
      return;
    case Qt::Key_Down:
      focusNextChild();
      return;
    case Qt::Key_Up:
      focusPreviousChild();
      return;
    default:
      QWidget::keyPressEvent(event);
  }
}

void PopoverWindow::paintEvent(QPaintEvent* /*event*/) {
  const auto& theme = Theme::current();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(QPen(theme.border, 1));
  painter.setBrush(theme.window);
  painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), radius, radius);
}

void PopoverWindow::showEvent(QShowEvent* event) {
  QWidget::showEvent(event);
  fitSoon();
  if (!rows_.empty()) {
    rows_.front()->setFocus();
  } else {
    offer_->setFocus();
  }
  Q_EMIT opened();
}

void PopoverWindow::hideEvent(QHideEvent* event) {
  QWidget::hideEvent(event);
  Q_EMIT closed();
}

}  // namespace vimbrel::desktop
