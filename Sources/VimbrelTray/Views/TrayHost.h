// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>

class QDBusServiceWatcher;
class QTimer;

namespace vimbrel::desktop {

/// Waits for a place that shows menu-bar items: a StatusNotifierItem host on the session bus, or an owner of
/// the older tray's X11 selection. Qt chooses between the two once and for all when its first item is made,
/// so the item must not be made before there is a place for it; at login the panel may come after us.
class TrayHost final : public QObject {
  Q_OBJECT

 public:
  explicit TrayHost(QObject* parent = nullptr);
  void start();

 Q_SIGNALS:
  /// Once.
  void available();

 private:
  void look();
  void found();

  QDBusServiceWatcher* watcher_;
  QTimer* timer_;
  bool isFound_ = false;
};

}  // namespace vimbrel::desktop
