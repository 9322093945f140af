// SPDX-License-Identifier: Apache-2.0
#include "Windows/SaveFile.h"

#include <QDir>
#include <QFileDialog>
#include <QSaveFile>

namespace vimbrel::desktop {

void saveText(QWidget& parent, const QString& title, const QString& name, const QString& text,
              std::function<void(const QString&)> failed) {
  auto* dialog = new QFileDialog(&parent, title, QDir::homePath());
  dialog->setAcceptMode(QFileDialog::AcceptSave);
  dialog->selectFile(name);
  dialog->setAttribute(Qt::WA_DeleteOnClose);
  QObject::connect(dialog, &QFileDialog::fileSelected, &parent,
                   [text, failed = std::move(failed)](const QString& path) {
                     QSaveFile file(path);
                     const auto bytes = text.toUtf8();
                     const bool isSaved = file.open(QIODevice::WriteOnly) &&
                                          file.setPermissions(QFile::ReadOwner | QFile::WriteOwner) &&
                                          file.write(bytes) == bytes.size() && file.commit();
                     if (!isSaved)
                       failed(QObject::tr("%1 cannot be written: %2").arg(path, file.errorString()));
                   });
  // Not exec(): nothing may stand still while the user looks for a folder.
  dialog->open();
}

}  // namespace vimbrel::desktop
