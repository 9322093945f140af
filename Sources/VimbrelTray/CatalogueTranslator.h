// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QTranslator>

class QCoreApplication;

namespace vimbrel::desktop {

/// Lets `tr()` speak the language of `say`, from the same catalogue. Contexts are of no account: the same
/// English is the same text everywhere.
class CatalogueTranslator : public QTranslator {
  Q_OBJECT
 public:
  using QTranslator::QTranslator;
  [[nodiscard]] bool isEmpty() const override { return false; }
  [[nodiscard]] QString translate(const char* context, const char* english, const char* disambiguation,
                                  int number) const override;
};

/// Installs it for the program, and below it Qt's own texts ("Cancel", the file dialog) in the same language
/// where they are installed. Nothing when English is spoken.
void translateProgram(QCoreApplication& application);

}  // namespace vimbrel::desktop
