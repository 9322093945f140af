// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Client/DesktopModel.h"

class QPushButton;

namespace vimbrel::desktop {

class ToneLabel;

/// What the window shows while the application is not running: that it is not, and the button that starts it.
class AbsentView final : public QWidget {
  Q_OBJECT

 public:
  explicit AbsentView(DesktopModel& model);
  void takeSituation();
  /// Why a start failed; empty takes it away.
  void showProblem(const QString& problem);

 private:
  DesktopModel& model_;
  ToneLabel* title_;
  ToneLabel* reason_;
  ToneLabel* problem_;
  QPushButton* start_;
};

}  // namespace vimbrel::desktop
