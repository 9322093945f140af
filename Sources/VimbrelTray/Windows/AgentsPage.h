// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Presentation/AgentSetup.h"
#include "Windows/Page.h"

class QLabel;
class QListWidget;
class QPlainTextEdit;
class QPushButton;

namespace vimbrel::desktop {

/// The agents of this machine, and how each is connected: what to paste, where it goes, and the proof that
/// its events arrive. The first start opens it as the introduction.
class AgentsPage final : public Page {
  Q_OBJECT

 public:
  explicit AgentsPage(DesktopModel& model);
  void refresh() override;
  void takeSituation() override;

 private:
  QWidget* makeDetails();
  void showRows(const std::vector<AgentRow>& rows);
  void select(int index);
  void showSetup(const AgentInstructions& setup);
  void showWaiting();

  std::vector<AgentRow> rows_;
  FirstEventWatch watch_;
  bool isWatching_ = false;
  AgentType chosen_ = AgentType::custom;
  QWidget* introduction_;
  QListWidget* list_;
  QLabel* name_;
  QLabel* status_;
  QLabel* instructions_;
  QLabel* place_;
  QPlainTextEdit* snippet_;
  QPushButton* copy_;
  QLabel* waiting_;
};

}  // namespace vimbrel::desktop
