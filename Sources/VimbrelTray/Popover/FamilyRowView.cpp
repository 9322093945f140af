// SPDX-License-Identifier: Apache-2.0
#include "Popover/FamilyRowView.h"

#include <QEvent>
#include <QKeyEvent>
#include <QPainter>
#include <algorithm>

#include "Views/AvatarPicture.h"
#include "Views/Painting.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

constexpr int padding = 10;
constexpr int avatarSide = 32;
constexpr int tileSide = 16;  ///< of agents' and hosts' signs
constexpr int textLeft = padding + avatarSide + 14;
constexpr int hostIndent = 18;
constexpr int barHeight = 6;

QString shown(const std::string& value) { return QString::fromStdString(value); }

/// A path reads from left to right among any script.
QString leftToRight(const QString& path) { return QChar(0x2066) + path + QChar(0x2069); }

QString spoken(const FamilyRow& row) {
  QStringList parts{shown(row.name), shown(row.state), shown(row.subtitle)};
  if (!row.budget.empty()) parts << shown(row.budget);
  if (!row.alert.empty()) parts << shown(row.alert);
  for (const auto& bar : row.bars) {
    parts << shown(bar.label) + " " + shown(bar.text);
    if (!bar.detail.empty()) parts << shown(bar.detail);
  }
  return parts.join(", ");
}

}  // namespace

FamilyRowView::FamilyRowView(QWidget* parent) : QAbstractButton(parent), avatar_([this] { update(); }) {
  setCheckable(true);
  setFocusPolicy(Qt::StrongFocus);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  connect(this, &QAbstractButton::toggled, this, [this] { updateGeometry(); });
}

void FamilyRowView::setRow(const FamilyRow& row) {
  if (row == row_) return;
  row_ = row;
  avatar_.setMood({.state = row.visual});
  setAccessibleName(spoken(row));
  setAccessibleDescription(tr("Shows its hosts and sessions"));
  updateGeometry();
  update();
}

int FamilyRowView::lineHeight() const { return fontMetrics().height() + 2; }

QRect FamilyRowView::column(int y, int height, int indent) const {
  return mirroredRect(QRect(textLeft + indent, y, width() - textLeft - indent - padding, height), *this);
}

int FamilyRowView::paintHeading(QPainter* painter, int y) const {
  const auto& theme = Theme::current();
  if (painter != nullptr) {
    auto bold = font();
    bold.setBold(true);
    const QFontMetrics boldMetrics(bold);
    const auto state = shown(row_.state);
    // The sign that opens the row turns when it is open.
    const int chevron = 16;
    const int stateWidth = boldMetrics.horizontalAdvance(state);
    const auto area = QRect(textLeft, y, width() - textLeft - padding, lineHeight());
    painter->setFont(bold);
    paintLine(*painter, mirroredRect(area.adjusted(0, 0, -stateWidth - chevron - 8, 0), *this),
              shown(row_.name), theme.text);
    paintLine(
        *painter,
        mirroredRect(QRect(area.right() - chevron - stateWidth, y, stateWidth + 1, lineHeight()), *this),
        state, theme.of(row_.visual));
    painter->setFont(font());
    const auto sign = isChecked()       ? QStringLiteral("▾")
                      : isRightToLeft() ? QStringLiteral("◂")
                                        : QStringLiteral("▸");
    paintLine(*painter, mirroredRect(QRect(area.right() - chevron + 4, y, chevron, lineHeight()), *this),
              sign, theme.dim, Qt::AlignTrailing);
  }
  y += lineHeight();
  const auto addLine = [&](const std::string& line, const QColor& colour) {
    if (line.empty()) return;
    if (painter != nullptr) paintLine(*painter, column(y, lineHeight()), shown(line), colour);
    y += lineHeight();
  };
  addLine(row_.subtitle, theme.dim);
  addLine(row_.budget, theme.dim);
  if (!row_.alert.empty()) addLine("⚠ " + row_.alert, theme.warning);
  return y;
}

int FamilyRowView::paintBars(QPainter* painter, int y) const {
  const auto& theme = Theme::current();
  // The bars of a row begin and end at the same places.
  int labelWidth = 0;
  int valueWidth = 0;
  for (const auto& bar : row_.bars) {
    labelWidth = std::max(labelWidth, fontMetrics().horizontalAdvance(shown(bar.label)));
    valueWidth = std::max(valueWidth, fontMetrics().horizontalAdvance(shown(bar.text)) + 2);
  }
  for (const auto& bar : row_.bars) {
    const auto area = QRect(textLeft, y, width() - textLeft - padding, lineHeight());
    const int barLeft = area.left() + labelWidth + 8;
    y += lineHeight();
    if (!bar.detail.empty()) y += lineHeight();
    if (painter == nullptr) continue;
    const int room = area.right() - barLeft - 8;
    const int value = std::min(valueWidth, room * 2 / 3);
    const QRect barArea(barLeft, area.top() + (lineHeight() - barHeight) / 2, room - value, barHeight);
    paintLine(*painter, mirroredRect(QRect(area.left(), area.top(), labelWidth + 1, lineHeight()), *this),
              shown(bar.label), theme.dim);
    const auto colour =
        bar.isLow ? theme.of(bar.remainingPercent <= 10 ? Tone::bad : Tone::warning) : theme.good;
    paintBar(*painter, mirroredRect(barArea, *this), bar.remainingPercent / 100, colour, isRightToLeft());
    paintLine(*painter, mirroredRect(QRect(area.right() - value + 1, area.top(), value, lineHeight()), *this),
              shown(bar.text), bar.isLow ? colour : theme.dim, Qt::AlignTrailing);
    paintLine(
        *painter,
        mirroredRect(QRect(barLeft, area.top() + lineHeight(), area.right() - barLeft, lineHeight()), *this),
        shown(bar.detail), theme.dim);
  }
  return y;
}

int FamilyRowView::paintHosts(QPainter* painter, int y) const {
  const auto& theme = Theme::current();
  if (row_.hosts.empty()) {
    if (painter != nullptr) paintLine(*painter, column(y, lineHeight()), tr("No sessions now"), theme.dim);
    return y + lineHeight();
  }
  for (const auto& host : row_.hosts) {
    y += 4;
    if (painter != nullptr) {
      const QRect sign(textLeft - 3, y + (lineHeight() - tileSide) / 2, tileSide, tileSide);
      painter->drawPixmap(mirroredRect(sign, *this).topLeft(),
                          hostTile(host.name, tileSide, devicePixelRatioF()));
      paintLine(*painter, column(y, lineHeight(), hostIndent), shown(host.name), theme.text);
    }
    y += lineHeight();
    for (const auto& session : host.sessions) {
      if (painter != nullptr) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(theme.of(session.visual));
        painter->drawEllipse(mirroredRect(QRect(textLeft + 2, y + lineHeight() / 2 - 3, 7, 7), *this));
        paintLine(*painter, column(y, lineHeight(), hostIndent), leftToRight(shown(session.title)),
                  theme.text);
        paintLine(*painter, column(y + lineHeight(), lineHeight(), hostIndent), shown(session.detail),
                  theme.dim);
      }
      y += 2 * lineHeight();
    }
  }
  return y;
}

int FamilyRowView::layOut(QPainter* painter) const {
  int y = paintHeading(painter, padding - 2);
  y = paintBars(painter, y);
  if (isChecked()) y = paintHosts(painter, y);
  return std::max(y, padding + avatarSide) + padding - 2;
}

QSize FamilyRowView::sizeHint() const { return {320, layOut(nullptr)}; }

void FamilyRowView::paintEvent(QPaintEvent* /*event*/) {
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  paintRowBackground(painter, *this);
  const auto place = mirroredRect(QRect(padding, padding, avatarSide, avatarSide), *this);
  painter.drawImage(place, avatarImage(avatar_.frame(), qRound(avatarSide * devicePixelRatioF())));
  // Which agent it is, in the avatar's corner.
  const int corner = padding + avatarSide - tileSide + 5;
  painter.drawPixmap(mirroredRect(QRect(corner, corner, tileSide, tileSide), *this).topLeft(),
                     agentTile(row_.agent, tileSide, devicePixelRatioF()));
  layOut(&painter);
}

void FamilyRowView::keyPressEvent(QKeyEvent* event) {
  const auto open = isRightToLeft() ? Qt::Key_Left : Qt::Key_Right;
  const auto close = isRightToLeft() ? Qt::Key_Right : Qt::Key_Left;
  if (event->key() == open) return setChecked(true);
  if (event->key() == close) return setChecked(false);
  if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) return toggle();
  QAbstractButton::keyPressEvent(event);
}

void FamilyRowView::enterEvent(QEnterEvent* /*event*/) { update(); }
void FamilyRowView::leaveEvent(QEvent* /*event*/) { update(); }
void FamilyRowView::showEvent(QShowEvent* /*event*/) { avatar_.setVisible(true); }
void FamilyRowView::hideEvent(QHideEvent* /*event*/) { avatar_.setVisible(false); }

void FamilyRowView::changeEvent(QEvent* event) {
  if (event->type() == QEvent::FontChange) updateGeometry();
  QAbstractButton::changeEvent(event);
}

}  // namespace vimbrel::desktop
