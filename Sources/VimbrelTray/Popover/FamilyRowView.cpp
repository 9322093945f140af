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
constexpr int textLeft = padding + avatarSide + 10;
constexpr int barHeight = 6;

QString shown(const std::string& value) { return QString::fromStdString(value); }

/// A path reads from left to right among any script.
QString leftToRight(const QString& path) { return QChar(0x2066) + path + QChar(0x2069); }

QString spoken(const FamilyRow& row) {
  QStringList parts{shown(row.name), shown(row.state), shown(row.subtitle)};
  if (!row.budget.empty()) parts << shown(row.budget);
  if (!row.alert.empty()) parts << shown(row.alert);
  for (const auto& bar : row.bars) parts << shown(bar.label) + " " + shown(bar.text);
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
  int labelWidth = 0;
  for (const auto& bar : row_.bars) {
    labelWidth = std::max(labelWidth, fontMetrics().horizontalAdvance(shown(bar.label)));
  }
  for (const auto& bar : row_.bars) {
    if (painter != nullptr) {
      const auto area = QRect(textLeft, y, width() - textLeft - padding, lineHeight());
      const auto value = shown(bar.text);
      const int room = area.width() - labelWidth - 16;
      const int valueWidth = std::min(fontMetrics().horizontalAdvance(value) + 2, room * 2 / 3);
      const int barLeft = area.left() + labelWidth + 8;
      const QRect barArea(barLeft, y + (lineHeight() - barHeight) / 2, room - valueWidth, barHeight);
      paintLine(*painter, mirroredRect(QRect(area.left(), y, labelWidth + 1, lineHeight()), *this),
                shown(bar.label), theme.dim);
      const auto colour =
          bar.isLow ? theme.of(bar.remainingPercent <= 10 ? Tone::bad : Tone::warning) : theme.good;
      paintBar(*painter, mirroredRect(barArea, *this), bar.remainingPercent / 100, colour, isRightToLeft());
      paintLine(*painter,
                mirroredRect(QRect(area.right() - valueWidth + 1, y, valueWidth, lineHeight()), *this), value,
                bar.isLow ? colour : theme.dim, Qt::AlignTrailing);
    }
    y += lineHeight();
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
    if (painter != nullptr) paintLine(*painter, column(y, lineHeight()), shown(host.name), theme.text);
    y += lineHeight();
    for (const auto& session : host.sessions) {
      if (painter != nullptr) {
        painter->setPen(Qt::NoPen);
        painter->setBrush(theme.of(session.visual));
        painter->drawEllipse(mirroredRect(QRect(textLeft + 2, y + lineHeight() / 2 - 3, 7, 7), *this));
        paintLine(*painter, column(y, lineHeight(), 16), leftToRight(shown(session.title)), theme.text);
        paintLine(*painter, column(y + lineHeight(), lineHeight(), 16), shown(session.detail), theme.dim);
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
  const int tile = 14;
  painter.drawPixmap(
      mirroredRect(QRect(padding + avatarSide - tile + 4, padding + avatarSide - tile + 4, tile, tile), *this)
          .topLeft(),
      agentTile(row_.agent, tile, devicePixelRatioF()));
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
