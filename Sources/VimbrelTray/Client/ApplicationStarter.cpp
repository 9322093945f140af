// SPDX-License-Identifier: Apache-2.0
#include "Client/ApplicationStarter.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

namespace vimbrel::desktop {

QString ApplicationStarter::program() {
  const QDir own(QCoreApplication::applicationDirPath());
  // Installed, or in a build tree.
  for (const auto& name : {QString("vimbrel"), QString("../VimbrelApp/vimbrel")}) {
    const QFileInfo candidate(own.filePath(name));
    if (candidate.isExecutable() && candidate.isFile()) return candidate.canonicalFilePath();
  }
  return QStandardPaths::findExecutable("vimbrel");
}

// The user's own unit, which `vimbrel run --install-service` writes, and the package's. Never both are
// enabled.
void ApplicationStarter::start() { startFirstOf({"com.vimbrel.app.service", "vimbrel.service"}); }

void ApplicationStarter::startFirstOf(QStringList units) {
  if (units.isEmpty()) return startProcess();
  auto* systemctl = new QProcess(this);
  systemctl->setProgram("systemctl");
  systemctl->setArguments({"--user", "start", units.takeFirst()});
  systemctl->setStandardOutputFile(QProcess::nullDevice());
  systemctl->setStandardErrorFile(QProcess::nullDevice());
  connect(systemctl, &QProcess::finished, this,
          [this, systemctl, units](int status, QProcess::ExitStatus kind) {
            systemctl->deleteLater();
            if (kind != QProcess::NormalExit || status != 0) startFirstOf(units);
          });
  connect(systemctl, &QProcess::errorOccurred, this, [this, systemctl](QProcess::ProcessError error) {
    if (error != QProcess::FailedToStart) return;
    systemctl->deleteLater();
    startProcess();
  });
  systemctl->start();
}

void ApplicationStarter::startProcess() {
  const auto executable = program();
  if (executable.isEmpty()) {
    Q_EMIT failed(
        tr("The program \"vimbrel\" was not found. Install it, or start \"vimbrel run\" in a terminal."));
    return;
  }
  QProcess process;
  process.setProgram(executable);
  process.setArguments({"run", "--lines"});
  process.setStandardInputFile(QProcess::nullDevice());
  process.setStandardOutputFile(QProcess::nullDevice());
  process.setStandardErrorFile(QProcess::nullDevice());
  if (!process.startDetached()) Q_EMIT failed(tr("%1 could not be started.").arg(executable));
}

}  // namespace vimbrel::desktop
