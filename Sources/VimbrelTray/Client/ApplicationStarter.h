// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

namespace vimbrel::desktop {

/// Starts the background process so that it outlives the desktop's program: as a unit of the user's service
/// manager where there is one, else as a process of its own.
class ApplicationStarter final : public QObject {
  Q_OBJECT

 public:
  using QObject::QObject;
  /// Returns at once. `failed` follows when it could not be started.
  void start();
  /// The `vimbrel` beside this program, or on the search path; empty when there is none.
  [[nodiscard]] static QString program();

 Q_SIGNALS:
  void failed(const QString& reason);

 private:
  /// As the first of these units that there is; as a process where there is none.
  void startFirstOf(QStringList units);
  void startProcess();
};

}  // namespace vimbrel::desktop
