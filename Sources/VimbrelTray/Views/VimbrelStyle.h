// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QProxyStyle>

namespace vimbrel::desktop {

/// How controls look here: flat, rounded, in the colours of the theme, on top of Qt's own Fusion. The outline
/// of what has the keyboard shows once the keyboard was used. Texts run in their own direction whatever the
/// layout's is, so that an English sentence of the application stays one in a right-to-left window.
class VimbrelStyle final : public QProxyStyle {
  Q_OBJECT

 public:
  VimbrelStyle();

  void drawPrimitive(PrimitiveElement element, const QStyleOption* option, QPainter* painter,
                     const QWidget* widget) const override;
  void drawControl(ControlElement element, const QStyleOption* option, QPainter* painter,
                   const QWidget* widget) const override;
  void drawComplexControl(ComplexControl control, const QStyleOptionComplex* option, QPainter* painter,
                          const QWidget* widget) const override;
  void drawItemText(QPainter* painter, const QRect& area, int flags, const QPalette& palette, bool enabled,
                    const QString& text, QPalette::ColorRole role) const override;
  [[nodiscard]] QRect subControlRect(ComplexControl control, const QStyleOptionComplex* option,
                                     SubControl part, const QWidget* widget) const override;
  [[nodiscard]] int pixelMetric(PixelMetric metric, const QStyleOption* option,
                                const QWidget* widget) const override;
  [[nodiscard]] QSize sizeFromContents(ContentsType type, const QStyleOption* option, const QSize& size,
                                       const QWidget* widget) const override;

  /// The one button that a window wants pressed.
  static void makePrimary(QWidget& button);
};

}  // namespace vimbrel::desktop
