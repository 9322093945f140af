// SPDX-License-Identifier: Apache-2.0
#include "SingleInstance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>

namespace vimbrel::desktop {
namespace {

constexpr const char* service = "com.vimbrel.Tray";
constexpr const char* path = "/com/vimbrel/Tray";

}  // namespace

SingleInstance::SingleInstance() {
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return;
  isFirst_ = bus.registerService(service);
  if (isFirst_) bus.registerObject(path, this, QDBusConnection::ExportScriptableSlots);
}

void SingleInstance::askFirstToOpen(const QString& what) {
  auto message = QDBusMessage::createMethodCall(service, path, service, "Open");
  message << what;
  QDBusConnection::sessionBus().call(message, QDBus::Block, 2000);
}

void SingleInstance::Open(const QString& what) { Q_EMIT openRequested(what); }

}  // namespace vimbrel::desktop
