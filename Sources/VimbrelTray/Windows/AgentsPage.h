// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Presentation/AgentSetup.h"
#include "Windows/Page.h"

class QLabel;
class QListWidget;
class QPlainTextEdit;
class QPushButton;

namespace vimbrel::desktop {

class AvatarView;
class IntroductionView;
class ToneLabel;

/// The agents of this machine, and how each is connected: what to paste, where it goes, and the proof that
/// its events arrive. The introduction stands above them until somebody has finished it, and whenever it is
/// asked for.
class AgentsPage final : public Page {
  Q_OBJECT

 public:
  explicit AgentsPage(DesktopModel& model);
  void refresh() override;
  void takeSituation() override;
  void restyle() override;
  /// Shows the introduction again, until it is finished again.
  void openIntroduction();

 private:
  QWidget* makeDetails();
  QWidget* makeHeading();
  void showIntroduction();
  void finishIntroduction();
  void showRows(const std::vector<AgentRow>& rows);
  void showList();
  void showStatus(const AgentRow& row);
  void select(int index);
  void showSetup(const AgentInstructions& setup);
  void showWaiting();

  std::vector<AgentRow> rows_;
  FirstEventWatch watch_;
  bool isWatching_ = false;
  bool isIntroductionAskedFor_ = false;
  AgentType chosen_ = AgentType::custom;
  IntroductionView* introduction_;
  QListWidget* list_;
  QLabel* emblem_;
  ToneLabel* name_;
  ToneLabel* status_;
  ToneLabel* instructions_;
  ToneLabel* place_;
  QPlainTextEdit* snippet_;
  QPushButton* copy_;
  QWidget* waitingRow_;
  AvatarView* waitingAvatar_;
  ToneLabel* waiting_;
};

}  // namespace vimbrel::desktop
