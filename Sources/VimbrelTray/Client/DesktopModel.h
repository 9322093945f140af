// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QObject>
#include <QTimer>

#include "Client/ApplicationStarter.h"
#include "Client/ControlLink.h"
#include "Presentation/Link.h"
#include "Presentation/TrayItem.h"

namespace vimbrel::desktop {

/// What every surface and window of the program shares: the situation as it is, and the ways to change it.
/// It keeps no state of its own: everything is the application's and comes back from it.
class DesktopModel final : public QObject {
  Q_OBJECT

 public:
  explicit DesktopModel(std::string socketPath, QObject* parent = nullptr);
  void start();

  [[nodiscard]] const Situation& situation() const { return situation_; }
  [[nodiscard]] ControlLink& link() { return link_; }

  /// What the menu and the popover offer, windows excepted.
  void perform(MenuAction action);
  void setSetting(const QString& key, const nlohmann::json& value);

 Q_SIGNALS:
  void situationChanged();
  /// Something that the user asked for was not done; a sentence.
  void failed(const QString& problem);

 private:
  void takeState(const nlohmann::json& state);
  void loseState();
  void ask(const std::string& method, const nlohmann::json& params);
  void startApplication();
  void setLink(LinkStatus status);

  ControlLink link_;
  ApplicationStarter starter_;
  Situation situation_;
  bool toldOfUnreadable_ = false;
  QTimer startPatience_;
};

}  // namespace vimbrel::desktop
