// SPDX-License-Identifier: Apache-2.0
#include "CatalogueTranslator.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QString>

#include "Say.h"
#include "UserLanguage.h"

namespace vimbrel::desktop {
namespace {

/// Texts of Qt that this program shows most, so that they are translated without Qt's own catalogues too.
/// They stand here for the translation tools to find; Qt asks for them by itself.
[[maybe_unused]] constexpr const char* textsOfQt[] = {toSay("OK"),
                                                      toSay("Cancel"),
                                                      toSay("Reset"),
                                                      toSay("Save"),
                                                      toSay("&Undo"),
                                                      toSay("&Redo"),
                                                      toSay("Cu&t"),
                                                      toSay("&Copy"),
                                                      toSay("&Paste"),
                                                      toSay("Delete"),
                                                      toSay("Select All"),
                                                      toSay("&Step up"),
                                                      toSay("Step &down"),
                                                      toSay("Usage: %1"),
                                                      toSay("[options]"),
                                                      toSay("Options:"),
                                                      toSay("Displays help on commandline options."),
                                                      toSay("Displays help including Qt specific options."),
                                                      toSay("Displays version information."),
                                                      toSay("Unknown option '%1'."),
                                                      toSay("Unknown options: %1."),
                                                      toSay("Missing value after '%1'."),
                                                      toSay("Unexpected value after '%1'.")};

}  // namespace

QString CatalogueTranslator::translate(const char* /*context*/, const char* english,
                                       const char* /*disambiguation*/, int /*number*/) const {
  const auto told = say(english);
  // Null: not ours, so that Qt asks the next translator.
  return told == english ? QString() : QString::fromStdString(told);
}

void translateProgram(QCoreApplication& application) {
  if (spokenLanguage() == "en") return;
  auto* toolkit = new QTranslator(&application);
  const QLocale locale(QString::fromStdString(spokenLanguage()));
  if (toolkit->load(locale, "qtbase", "_", QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
    QCoreApplication::installTranslator(toolkit);
  }
  // The last one installed is asked first.
  QCoreApplication::installTranslator(new CatalogueTranslator(&application));
}

}  // namespace vimbrel::desktop
