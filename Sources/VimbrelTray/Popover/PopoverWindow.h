// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QElapsedTimer>
#include <QWidget>
#include <vector>

#include "Domain/StatusSurface.h"
#include "Presentation/PopoverContent.h"
#include "Presentation/TrayItem.h"
#include "Presentation/UsageSummaries.h"

class QPushButton;
class QScrollArea;
class QVBoxLayout;

namespace vimbrel::desktop {

class FamilyRowView;
class HeaderView;
class PowerView;
class SwitchButton;
class ToneLabel;
class UsageView;

/// The panel that opens at the menu-bar item. It closes when something else is clicked or gets the focus, and
/// on Escape.
class PopoverWindow final : public QWidget, public PopoverStatusSurface {
  Q_OBJECT

 public:
  PopoverWindow();

  void setContent(const PopoverContent& content, Instant now);
  void setChart(const UsageChart& chart);
  void render(const VimbrelDisplayState& state) override;
  /// Opens at the item, or where the mouse is when the panel does not tell; closes when it is open.
  void toggleAt(const QRect& item);
  void openAt(const QRect& item);
  /// A sentence about something that failed; until the popover closes.
  void showProblem(const QString& problem);

 Q_SIGNALS:
  void opened();
  void closed();
  void chosen(vimbrel::desktop::MenuAction action);
  void settingRequested(const QString& key, bool value);

 protected:
  bool event(QEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void paintEvent(QPaintEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  void closeByClick();
  QWidget* makeSwitches();
  QWidget* makeFooter();
  void showFamilies(const std::vector<FamilyRow>& families);
  void showNotices();
  void fit();
  void fitSoon();
  [[nodiscard]] QRect screenArea() const;

  QRect item_;
  PopoverContent content_;
  bool hasContent_ = false;
  QString problem_;
  QElapsedTimer sinceClick_;  // that closed it, on the item or elsewhere; invalid until there was one
  QWidget* page_;
  QScrollArea* scroll_;
  HeaderView* header_;
  ToneLabel* notices_;
  QWidget* offerBox_;
  QPushButton* offer_;
  QVBoxLayout* families_;
  std::vector<FamilyRowView*> rows_;
  PowerView* power_;
  UsageView* usage_;
  QWidget* running_;  ///< all that is there only while the application runs
  SwitchButton* master_ = nullptr;
  SwitchButton* hold_ = nullptr;
  SwitchButton* display_ = nullptr;
  QWidget* pauses_ = nullptr;
  QPushButton* resume_ = nullptr;
};

}  // namespace vimbrel::desktop
