// SPDX-License-Identifier: Apache-2.0
#include "Views/MenuBarItem.h"

#include <QSystemTrayIcon>

#include "Views/AvatarPicture.h"

namespace vimbrel::desktop {

using Kind = MenuEntry::Kind;

MenuBarItem::MenuBarItem(QObject* parent) : QObject(parent), avatar_([this] { drawIcon(); }) {}

MenuBarItem::~MenuBarItem() = default;

void MenuBarItem::show() {
  icon_ = std::make_unique<QSystemTrayIcon>();
  icon_->setContextMenu(&menu_);
  connect(icon_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
    if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::MiddleClick) Q_EMIT activated();
  });
  drawIcon();
  icon_->setToolTip(QString::fromStdString(content_.title));
  icon_->show();
  avatar_.setVisible(true);
}

QRect MenuBarItem::geometry() const { return icon_ ? icon_->geometry() : QRect(); }

void MenuBarItem::render(const VimbrelDisplayState& state) {
  avatar_.setMood({.state = state.visualState, .isAbsent = content_.isAbsent, .isPaused = state.isPaused});
}

void MenuBarItem::setContent(const TrayItem& content) {
  if (content == content_) return;
  const bool isCountNew = content.workingCount != content_.workingCount;
  content_ = content;
  avatar_.setMood({.state = content.visual, .isAbsent = content.isAbsent, .isPaused = content.isPaused});
  if (isCountNew) drawIcon();
  applyTo(menu_, content_.menu);
  if (!icon_) return;
  auto toolTip = QString::fromStdString(content_.title);
  if (!content_.detail.empty()) toolTip += "\n" + QString::fromStdString(content_.detail);
  icon_->setToolTip(toolTip);
}

void MenuBarItem::drawIcon() {
  if (!icon_) return;
  icon_->setIcon(avatarIcon(VimbrelBlobAvatarProvider::withCount(avatar_.frame(), content_.workingCount)));
}

/// Entries of the same kinds are changed in place, so that an open menu stays usable.
void MenuBarItem::applyTo(QMenu& menu, const std::vector<MenuEntry>& entries) {
  const auto kindOf = [](const QAction* action) {
    if (action->isSeparator()) return Kind::separator;
    if (action->menu() != nullptr) return Kind::submenu;
    return action->isCheckable() ? Kind::check : Kind::item;
  };
  const auto present = menu.actions();
  bool isSameShape = static_cast<std::size_t>(present.size()) == entries.size();
  for (std::size_t i = 0; isSameShape && i < entries.size(); ++i) {
    isSameShape = kindOf(present[static_cast<qsizetype>(i)]) == entries[i].kind;
  }
  if (!isSameShape) {
    menu.clear();
    for (const auto& entry : entries) {
      if (entry.kind == Kind::separator) {
        menu.addSeparator();
      } else if (entry.kind == Kind::submenu) {
        menu.addMenu(new QMenu(&menu));
      } else {
        auto* action = menu.addAction(QString());
        action->setCheckable(entry.kind == Kind::check);
        connect(action, &QAction::triggered, this,
                [this, action] { Q_EMIT chosen(static_cast<MenuAction>(action->data().toInt())); });
      }
    }
  }
  const auto actions = menu.actions();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    auto* action = actions[static_cast<qsizetype>(i)];
    const auto& entry = entries[i];
    // "&" would underline the letter after it.
    action->setText(QString::fromStdString(entry.text).replace("&", "&&"));
    action->setEnabled(entry.isEnabled);
    action->setChecked(entry.isChecked);
    action->setData(static_cast<int>(entry.action));
    if (entry.kind == Kind::submenu) applyTo(*action->menu(), entry.children);
  }
}

}  // namespace vimbrel::desktop
