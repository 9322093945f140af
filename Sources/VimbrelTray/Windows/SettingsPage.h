// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include "Presentation/SettingsList.h"
#include "Windows/Page.h"

class QVBoxLayout;

namespace vimbrel::desktop {

class ToneLabel;

/// Every setting with its unit and bounds. A change is sent as it is made; what is shown is what the
/// application has.
class SettingsPage final : public Page {
  Q_OBJECT

 public:
  explicit SettingsPage(DesktopModel& model);
  void refresh() override;
  void takeSituation() override { refresh(); }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override;

 private:
  void show(const SettingsList& list);
  void build(const SettingsList& list);
  QWidget* makeLine(const SettingRow& row, QWidget* card);
  QWidget* makeControl(const SettingRow& row);
  void update(QWidget& control, const SettingRow& row);
  void set(const QString& key, const nlohmann::json& value);
  void resetAll();

  SettingsList list_;
  bool mustUpdate_ = false;         ///< a control may show what is not in force
  std::vector<QWidget*> controls_;  ///< in the order of the rows
  QWidget* form_ = nullptr;
  QVBoxLayout* formPlace_;
  ToneLabel* location_;
  ToneLabel* warnings_;
};

}  // namespace vimbrel::desktop
