// SPDX-License-Identifier: Apache-2.0
#include "Views/VimbrelStyle.h"

#include <QListView>
#include <QPainter>
#include <QPainterPath>
#include <QStyleOption>
#include <QWidget>
#include <algorithm>

#include "Views/Theme.h"

namespace vimbrel::desktop {
namespace {

constexpr qreal radius = 6;
constexpr const char* primaryProperty = "isPrimary";
constexpr int scrollBarExtent = 10;

bool isPrimary(const QWidget* widget) {
  return widget != nullptr && widget->property(primaryProperty).toBool();
}

/// Drawn so that a line of one pixel lies on pixels.
void paintPanel(QPainter& painter, const QRect& area, const QColor& fill, const QColor& outline,
                qreal width = 1) {
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(outline.isValid() ? QPen(outline, width) : QPen(Qt::NoPen));
  painter.setBrush(fill.isValid() ? QBrush(fill) : QBrush(Qt::NoBrush));
  const qreal inset = outline.isValid() ? width / 2 : 0;
  painter.drawRoundedRect(QRectF(area).adjusted(inset, inset, -inset, -inset), radius, radius);
  painter.restore();
}

void paintChevron(QPainter& painter, const QRect& area, bool isUp, const QColor& colour) {
  const QPointF middle = QRectF(area).center();
  const qreal half = 3.5;
  const qreal rise = isUp ? -2 : 2;
  QPainterPath path(middle + QPointF(-half, -rise));
  path.lineTo(middle + QPointF(0, rise));
  path.lineTo(middle + QPointF(half, -rise));
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(QPen(colour, 1.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
  painter.setBrush(Qt::NoBrush);
  painter.drawPath(path);
  painter.restore();
}

void paintButton(QPainter& painter, const QStyleOption& option, const QWidget* widget) {
  const auto& theme = Theme::current();
  const auto* button = qstyleoption_cast<const QStyleOptionButton*>(&option);
  const bool isFlat = button != nullptr && (button->features & QStyleOptionButton::Flat) != 0;
  const bool isEnabled = (option.state & QStyle::State_Enabled) != 0;
  const bool isDown = (option.state & (QStyle::State_Sunken | QStyle::State_On)) != 0;
  const bool isHovered = isEnabled && (option.state & QStyle::State_MouseOver) != 0;
  const bool isDefault = button != nullptr && (button->features & QStyleOptionButton::DefaultButton) != 0;
  if (isFlat && !isDown && !isHovered) return;
  if (isEnabled && (isPrimary(widget) || isDefault)) {
    const auto fill = isDown ? theme.accent.darker(118) : isHovered ? theme.accent.darker(108) : theme.accent;
    return paintPanel(painter, option.rect, fill, {});
  }
  const auto fill = isDown ? theme.track : isHovered || !isEnabled ? theme.hover : theme.card;
  paintPanel(painter, option.rect, fill, isFlat ? QColor() : theme.border);
}

void paintField(QPainter& painter, const QStyleOption& option) {
  const auto& theme = Theme::current();
  const bool hasFocus = (option.state & QStyle::State_HasFocus) != 0;
  paintPanel(painter, option.rect, (option.state & QStyle::State_Enabled) != 0 ? theme.card : theme.window,
             hasFocus ? theme.accent : theme.border, hasFocus ? 2 : 1);
}

void paintTab(QPainter& painter, const QStyleOptionTab& tab) {
  const auto& theme = Theme::current();
  const bool isSelected = (tab.state & QStyle::State_Selected) != 0;
  if (!isSelected && (tab.state & QStyle::State_MouseOver) != 0) {
    paintPanel(painter, tab.rect.adjusted(2, 2, -2, -5), theme.hover, {});
  }
  if (!isSelected) return;
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(theme.accent);
  painter.drawRoundedRect(QRectF(tab.rect.left() + 10, tab.rect.bottom() - 2, tab.rect.width() - 20, 3), 1.5,
                          1.5);
  painter.restore();
}

/// Items of a list are chosen one by one, cells of a table by the row.
void paintItemPanel(QPainter& painter, const QStyleOption& option, bool isInList) {
  const auto& theme = Theme::current();
  const bool isSelected = (option.state & QStyle::State_Selected) != 0;
  if (!isSelected && (option.state & QStyle::State_MouseOver) == 0) return;
  const auto& colour = isSelected ? theme.selection : theme.hover;
  if (!isInList) return painter.fillRect(option.rect, colour);
  paintPanel(painter, option.rect.adjusted(2, 0, -2, 0), colour, {});
}

void paintScrollBar(QPainter& painter, const QStyleOptionSlider& bar, QRect handle) {
  const auto& theme = Theme::current();
  if (bar.maximum <= bar.minimum) return;
  const bool isActive = (bar.state & (QStyle::State_MouseOver | QStyle::State_Sunken)) != 0;
  const int inset = isActive ? 2 : 3;
  handle.adjust(inset, inset, -inset, -inset);
  auto colour = theme.dim;
  colour.setAlpha(isActive ? 170 : 95);
  painter.save();
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(colour);
  const qreal round = std::min(handle.width(), handle.height()) / 2.0;
  painter.drawRoundedRect(handle, round, round);
  painter.restore();
}

}  // namespace

VimbrelStyle::VimbrelStyle() : QProxyStyle("Fusion") {}

void VimbrelStyle::makePrimary(QWidget& button) { button.setProperty(primaryProperty, true); }

void VimbrelStyle::drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                                 const QWidget* widget) const {
  const auto& theme = Theme::current();
  switch (element) {
    case PE_PanelButtonCommand:
      return paintButton(*painter, *option, widget);
    case PE_PanelLineEdit:
      if (const auto* frame = qstyleoption_cast<const QStyleOptionFrame*>(option)) {
        if (frame->lineWidth > 0) return paintField(*painter, *option);
      }
      break;
    case PE_FrameLineEdit:
      return;
    case PE_Frame:
      if (option->state & State_HasFocus) return paintPanel(*painter, option->rect, {}, theme.accent, 1.5);
      return paintPanel(*painter, option->rect, {}, theme.border);
    case PE_FrameFocusRect:
      if (option->state & State_KeyboardFocusChange) {
        paintPanel(*painter, option->rect.adjusted(-1, -1, 1, 1), {}, theme.accent, 2);
      }
      return;
    case PE_FrameTabBarBase:
      if (const auto* base = qstyleoption_cast<const QStyleOptionTabBarBase*>(option)) {
        painter->fillRect(QRect(base->rect.left(), base->rect.bottom(), base->rect.width(), 1), theme.border);
      }
      return;
    case PE_PanelItemViewRow:
      // Every second row of a table; what is selected is drawn with the items.
      if (const auto* row = qstyleoption_cast<const QStyleOptionViewItem*>(option)) {
        if (row->features & QStyleOptionViewItem::Alternate) painter->fillRect(row->rect, theme.stripe);
      }
      return;
    case PE_PanelItemViewItem:
      return paintItemPanel(*painter, *option, qobject_cast<const QListView*>(widget) != nullptr);
    case PE_PanelScrollAreaCorner:
      return;
    default:
      break;
  }
  QProxyStyle::drawPrimitive(element, option, painter, widget);
}

void VimbrelStyle::drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                               const QWidget* widget) const {
  const auto& theme = Theme::current();
  switch (element) {
    case CE_PushButtonLabel:
      if (const auto* button = qstyleoption_cast<const QStyleOptionButton*>(option)) {
        const bool isFilled = isPrimary(widget) || (button->features & QStyleOptionButton::DefaultButton);
        if (!isFilled || !(button->state & State_Enabled)) break;
        auto copy = *button;
        copy.palette.setColor(QPalette::ButtonText, theme.onAccent);
        return QProxyStyle::drawControl(element, &copy, painter, widget);
      }
      break;
    case CE_TabBarTabShape:
      if (const auto* tab = qstyleoption_cast<const QStyleOptionTab*>(option))
        return paintTab(*painter, *tab);
      break;
    case CE_TabBarTabLabel:
      if (const auto* tab = qstyleoption_cast<const QStyleOptionTab*>(option)) {
        auto copy = *tab;
        if (!(tab->state & State_Selected)) copy.palette.setColor(QPalette::WindowText, theme.dim);
        return QProxyStyle::drawControl(element, &copy, painter, widget);
      }
      break;
    case CE_HeaderSection:
    case CE_HeaderEmptyArea:
      painter->fillRect(option->rect, theme.card);
      painter->fillRect(QRect(option->rect.left(), option->rect.bottom(), option->rect.width(), 1),
                        theme.border);
      return;
    case CE_HeaderLabel:
      if (const auto* header = qstyleoption_cast<const QStyleOptionHeader*>(option)) {
        auto copy = *header;
        copy.palette.setColor(QPalette::ButtonText, theme.dim);
        copy.rect.adjust(5, 0, -5, 0);
        return QProxyStyle::drawControl(element, &copy, painter, widget);
      }
      break;
    case CE_ItemViewItem:
      if (const auto* item = qstyleoption_cast<const QStyleOptionViewItem*>(option)) {
        auto copy = *item;
        // The selection is a tint, and texts keep their colours on it.
        copy.palette.setColor(QPalette::HighlightedText, copy.palette.color(QPalette::Text));
        copy.state &= ~State_HasFocus;
        return QProxyStyle::drawControl(element, &copy, painter, widget);
      }
      break;
    case CE_Splitter:
      return;
    default:
      break;
  }
  QProxyStyle::drawControl(element, option, painter, widget);
}

void VimbrelStyle::drawComplexControl(ComplexControl control, const QStyleOptionComplex* option,
                                      QPainter* painter, const QWidget* widget) const {
  const auto& theme = Theme::current();
  const auto colour = option->state & State_Enabled ? theme.dim : theme.border;
  const auto area = [&](SubControl part) { return subControlRect(control, option, part, widget); };
  if (const auto* bar = qstyleoption_cast<const QStyleOptionSlider*>(option);
      bar != nullptr && control == CC_ScrollBar) {
    return paintScrollBar(*painter, *bar, area(SC_ScrollBarSlider));
  }
  if (const auto* spin = qstyleoption_cast<const QStyleOptionSpinBox*>(option);
      spin != nullptr && control == CC_SpinBox) {
    paintField(*painter, *option);
    for (const auto part : {SC_SpinBoxUp, SC_SpinBoxDown}) {
      const bool isUsable = spin->stepEnabled & (part == SC_SpinBoxUp ? QAbstractSpinBox::StepUpEnabled
                                                                      : QAbstractSpinBox::StepDownEnabled);
      const bool isUnder = (option->activeSubControls & part) && (option->state & State_MouseOver);
      paintChevron(*painter, area(part), part == SC_SpinBoxUp,
                   isUnder    ? theme.text
                   : isUsable ? colour
                              : theme.border);
    }
    return;
  }
  if (const auto* combo = qstyleoption_cast<const QStyleOptionComboBox*>(option);
      combo != nullptr && control == CC_ComboBox && !combo->editable) {
    auto panel = *option;
    if (!(combo->state & State_On)) panel.state &= ~State_Sunken;
    paintButton(*painter, panel, widget);
    if ((option->state & State_HasFocus) && (option->state & State_KeyboardFocusChange)) {
      paintPanel(*painter, option->rect, {}, theme.accent, 2);
    }
    return paintChevron(*painter, area(SC_ComboBoxArrow), false, colour);
  }
  QProxyStyle::drawComplexControl(control, option, painter, widget);
}

void VimbrelStyle::drawItemText(QPainter* painter, const QRect& area, int flags, const QPalette& palette,
                                bool enabled, const QString& text, QPalette::ColorRole role) const {
  if ((painter->layoutDirection() == Qt::RightToLeft || (flags & Qt::TextForceRightToLeft)) &&
      !text.isRightToLeft()) {
    const auto alignment = Qt::Alignment(flags) & Qt::AlignHorizontal_Mask;
    flags &= ~static_cast<int>(Qt::AlignHorizontal_Mask | Qt::TextForceRightToLeft);
    flags |= static_cast<int>(QStyle::visualAlignment(Qt::RightToLeft, alignment) | Qt::AlignAbsolute) |
             Qt::TextForceLeftToRight;
    const auto direction = painter->layoutDirection();
    painter->setLayoutDirection(Qt::LeftToRight);
    QProxyStyle::drawItemText(painter, area, flags, palette, enabled, text, role);
    painter->setLayoutDirection(direction);
    return;
  }
  QProxyStyle::drawItemText(painter, area, flags, palette, enabled, text, role);
}

QRect VimbrelStyle::subControlRect(ComplexControl control, const QStyleOptionComplex* option, SubControl part,
                                   const QWidget* widget) const {
  const auto* bar = qstyleoption_cast<const QStyleOptionSlider*>(option);
  if (control != CC_ScrollBar || bar == nullptr) {
    return QProxyStyle::subControlRect(control, option, part, widget);
  }
  // A bar without buttons: the handle has all of it.
  const bool isHorizontal = bar->orientation == Qt::Horizontal;
  const int length = isHorizontal ? bar->rect.width() : bar->rect.height();
  const int range = bar->maximum - bar->minimum;
  const int handle =
      range <= 0 ? length : std::clamp(length * bar->pageStep / (range + bar->pageStep), 24, length);
  const int start = sliderPositionFromValue(bar->minimum, bar->maximum, bar->sliderPosition, length - handle,
                                            bar->upsideDown);
  const auto along = [&](int from, int size) {
    const QRect area =
        isHorizontal ? QRect(from, 0, size, bar->rect.height()) : QRect(0, from, bar->rect.width(), size);
    return visualRect(isHorizontal ? bar->direction : Qt::LeftToRight, bar->rect,
                      area.translated(bar->rect.topLeft()));
  };
  switch (part) {
    case SC_ScrollBarGroove:
      return bar->rect;
    case SC_ScrollBarSlider:
      return along(start, handle);
    case SC_ScrollBarSubPage:
      return along(0, start);
    case SC_ScrollBarAddPage:
      return along(start + handle, length - start - handle);
    default:
      return {};
  }
}

int VimbrelStyle::pixelMetric(PixelMetric metric, const QStyleOption* option, const QWidget* widget) const {
  switch (metric) {
    case PM_ScrollBarExtent:
      return scrollBarExtent;
    case PM_ScrollView_ScrollBarSpacing:
    case PM_TabBarTabShiftVertical:
    case PM_TabBarTabShiftHorizontal:
    case PM_TabBarTabOverlap:
    case PM_ButtonShiftHorizontal:
    case PM_ButtonShiftVertical:
      return 0;
    case PM_TabBarTabHSpace:
      return 28;
    case PM_TabBarTabVSpace:
      return 18;
    case PM_SplitterWidth:
      return 12;
    case PM_DefaultFrameWidth:
      return 2;
    case PM_FocusFrameHMargin:
      return 7;
    case PM_HeaderMargin:
      return 4;
    default:
      return QProxyStyle::pixelMetric(metric, option, widget);
  }
}

QSize VimbrelStyle::sizeFromContents(ContentsType type, const QStyleOption* option, const QSize& size,
                                     const QWidget* widget) const {
  auto result = QProxyStyle::sizeFromContents(type, option, size, widget);
  switch (type) {
    case CT_PushButton:
    case CT_ComboBox:
    case CT_SpinBox:
    case CT_LineEdit:
      result.setHeight(option->fontMetrics.height() + 12);
      if (type == CT_PushButton) result.setWidth(std::max(result.width(), size.width() + 20));
      return result;
    case CT_HeaderSection:
      return result + QSize(8, 8);
    default:
      return result;
  }
}

}  // namespace vimbrel::desktop
