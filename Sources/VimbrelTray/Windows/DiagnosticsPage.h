// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Windows/Page.h"

class QPlainTextEdit;
class QPushButton;
class QVBoxLayout;

namespace vimbrel::desktop {

class ToneLabel;

/// What works on this machine and what to do about the rest, and the document for a report.
class DiagnosticsPage final : public Page {
  Q_OBJECT

 public:
  explicit DiagnosticsPage(DesktopModel& model);
  void refresh() override;
  void restyle() override {}

 private:
  void showFindings(const nlohmann::json& result);

  ToneLabel* state_;
  QWidget* findings_ = nullptr;
  QVBoxLayout* findingsPlace_;
  QPlainTextEdit* document_;
  QPushButton* copy_;
  QPushButton* save_;
};

}  // namespace vimbrel::desktop
