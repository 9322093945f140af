// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>

namespace vimbrel::desktop {

/// Makes sure that a session bus has one such program. A second one asks the first to open and ends. Without
/// a session bus every one is the first.
class SingleInstance final : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "com.vimbrel.Tray")

 public:
  SingleInstance();
  [[nodiscard]] bool isFirst() const { return isFirst_; }
  void askFirstToOpen(const QString& what);

 public Q_SLOTS:
  Q_SCRIPTABLE void Open(const QString& what);

 Q_SIGNALS:
  void openRequested(const QString& what);

 private:
  bool isFirst_ = true;
};

}  // namespace vimbrel::desktop
