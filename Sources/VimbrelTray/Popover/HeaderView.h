// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Presentation/PopoverContent.h"
#include "Views/AvatarAnimation.h"

namespace vimbrel::desktop {

class ToneLabel;

/// The avatar, what was decided and why, and for how long it holds.
class HeaderView final : public QWidget {
  Q_OBJECT

 public:
  explicit HeaderView(QWidget* parent = nullptr);
  void setContent(const PopoverContent& content);
  void showElapsed(Instant now);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void showEvent(QShowEvent* event) override;
  void hideEvent(QHideEvent* event) override;

 private:
  AvatarAnimation avatar_;
  ToneLabel* title_;
  ToneLabel* elapsed_;
  ToneLabel* reason_;
  std::optional<Instant> countsFrom_;
};

}  // namespace vimbrel::desktop
