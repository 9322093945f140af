// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QMenu>
#include <QObject>
#include <QRect>
#include <memory>

#include "Domain/StatusSurface.h"
#include "Presentation/TrayItem.h"
#include "Views/AvatarAnimation.h"

class QSystemTrayIcon;

namespace vimbrel::desktop {

/// The item in the panel: the avatar with the working count, a tooltip, and the menu.
class MenuBarItem final : public QObject, public MenuBarStatusSurface {
  Q_OBJECT

 public:
  explicit MenuBarItem(QObject* parent = nullptr);
  ~MenuBarItem() override;

  /// Shows the item; call when there is a place for it (`TrayHost`).
  void show();
  void setContent(const TrayItem& content);
  void render(const VimbrelDisplayState& state) override;
  /// Where the item is on the screen; null where the panel does not tell.
  [[nodiscard]] QRect geometry() const;

 Q_SIGNALS:
  /// A click on the item.
  void activated();
  void chosen(vimbrel::desktop::MenuAction action);

 private:
  void drawIcon();
  void applyTo(QMenu& menu, const std::vector<MenuEntry>& entries);

  QMenu menu_;
  std::unique_ptr<QSystemTrayIcon> icon_;
  AvatarAnimation avatar_;
  TrayItem content_;
};

}  // namespace vimbrel::desktop
