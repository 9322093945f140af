// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QAbstractButton>

namespace vimbrel::desktop {

/// A labelled switch as wide as its row, or without a text only the switch. It shows what the application
/// says: a click asks for a change and leaves the switch where it is until the application has made it.
class SwitchButton final : public QAbstractButton {
  Q_OBJECT

 public:
  explicit SwitchButton(const QString& text, QWidget* parent = nullptr);
  [[nodiscard]] QSize sizeHint() const override;

 Q_SIGNALS:
  void changeRequested(bool on);

 protected:
  void nextCheckState() override;
  void paintEvent(QPaintEvent* event) override;
  void enterEvent(QEnterEvent* event) override;
  void leaveEvent(QEvent* event) override;
};

}  // namespace vimbrel::desktop
