// SPDX-License-Identifier: Apache-2.0
#include "Client/DesktopPreferences.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QDBusVariant>

namespace vimbrel::desktop {
namespace {

constexpr const char* service = "org.freedesktop.portal.Desktop";
constexpr const char* path = "/org/freedesktop/portal/desktop";
constexpr const char* interface = "org.freedesktop.portal.Settings";
constexpr const char* appearance = "org.freedesktop.appearance";
constexpr const char* gnome = "org.gnome.desktop.interface";

/// Portals wrap values once or twice, depending on their age.
QVariant unwrapped(QVariant value) {
  while (value.canConvert<QDBusVariant>()) value = value.value<QDBusVariant>().variant();
  return value;
}

}  // namespace

DesktopPreferences::DesktopPreferences(QObject* parent) : QObject(parent) {}

void DesktopPreferences::start() {
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return;
  // The slot is found by the name of its argument's type, which Qt knows only once something else has used
  // it.
  qRegisterMetaType<QDBusVariant>();
  const bool isHeard = bus.connect(service, path, interface, "SettingChanged", this,
                                   SLOT(settingChanged(QString, QString, QDBusVariant)));
  if (!isHeard) qWarning("Changes of the desktop's colours and motion are not heard");
  // At login the portal may come after us, and it may be restarted.
  auto* watcher = new QDBusServiceWatcher(service, bus, QDBusServiceWatcher::WatchForRegistration, this);
  connect(watcher, &QDBusServiceWatcher::serviceRegistered, this, &DesktopPreferences::askAll);
  askAll();
}

void DesktopPreferences::askAll() {
  ask(appearance, "color-scheme");
  ask(appearance, "reduced-motion");
  ask(gnome, "enable-animations");
}

void DesktopPreferences::ask(const QString& group, const QString& key) {
  auto message = QDBusMessage::createMethodCall(service, path, interface, "Read");
  message << group << key;
  auto* call = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(message, 3000), this);
  connect(call, &QDBusPendingCallWatcher::finished, this, [this, call, group, key] {
    const QDBusPendingReply<QDBusVariant> reply = *call;
    call->deleteLater();
    if (reply.isValid()) take(group, key, unwrapped(reply.value().variant()));
  });
}

void DesktopPreferences::settingChanged(const QString& group, const QString& key, const QDBusVariant& value) {
  take(group, key, unwrapped(value.variant()));
}

void DesktopPreferences::take(const QString& group, const QString& key, const QVariant& value) {
  if (group == appearance && key == "color-scheme") {
    const auto scheme = value.toUInt();
    wantsDark_ = scheme == 0 ? std::nullopt : std::optional(scheme == 1);
  } else if (group == appearance && key == "reduced-motion") {
    wantsReducedMotion_ = value.toUInt() == 1;
  } else if (group == gnome && key == "enable-animations") {
    hasAnimationsOff_ = !value.toBool();
  } else {
    return;
  }
  Q_EMIT changed();
}

}  // namespace vimbrel::desktop
