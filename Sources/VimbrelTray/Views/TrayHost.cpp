// SPDX-License-Identifier: Apache-2.0
#include "Views/TrayHost.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>
#include <QTimer>

#include "Views/WindowSystem.h"

namespace vimbrel::desktop {
namespace {

constexpr const char* watcherName = "org.kde.StatusNotifierWatcher";

/// Whether the older tray of the X11 screen has an owner.
bool hasOlderTray() { return hasSelectionOwner("_NET_SYSTEM_TRAY_S0"); }

}  // namespace

TrayHost::TrayHost(QObject* parent)
    : QObject(parent),
      watcher_(new QDBusServiceWatcher(watcherName, QDBusConnection::sessionBus(),
                                       QDBusServiceWatcher::WatchForRegistration, this)),
      timer_(new QTimer(this)) {
  connect(watcher_, &QDBusServiceWatcher::serviceRegistered, this, &TrayHost::look);
  connect(timer_, &QTimer::timeout, this, &TrayHost::look);
}

void TrayHost::start() {
  look();
  if (!isFound_) timer_->start(2000);
}

void TrayHost::look() {
  if (isFound_) return;
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) {
    if (hasOlderTray()) found();
    return;
  }
  auto ask = QDBusMessage::createMethodCall(watcherName, "/StatusNotifierWatcher",
                                            "org.freedesktop.DBus.Properties", "Get");
  ask.setAutoStartService(false);
  ask << watcherName << "IsStatusNotifierHostRegistered";
  auto* call = new QDBusPendingCallWatcher(bus.asyncCall(ask, 2000), this);
  connect(call, &QDBusPendingCallWatcher::finished, this, [this, call] {
    const QDBusPendingReply<QDBusVariant> reply = *call;
    call->deleteLater();
    const bool hasHost = reply.isValid() && reply.value().variant().toBool();
    if (hasHost || hasOlderTray()) found();
  });
}

void TrayHost::found() {
  if (isFound_) return;
  isFound_ = true;
  timer_->stop();
  Q_EMIT available();
}

}  // namespace vimbrel::desktop
