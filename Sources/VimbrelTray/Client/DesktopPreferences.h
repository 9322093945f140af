// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QDBusVariant>
#include <QObject>
#include <QString>
#include <optional>

namespace vimbrel::desktop {

/// What the user asked of the desktop as a whole: dark colours, little motion. Read from the desktop portal,
/// now and when it changes; without one, things stay as they are. Asks without waiting.
class DesktopPreferences final : public QObject {
  Q_OBJECT

 public:
  explicit DesktopPreferences(QObject* parent = nullptr);
  void start();
  [[nodiscard]] std::optional<bool> wantsDark() const { return wantsDark_; }
  [[nodiscard]] bool wantsLittleMotion() const { return wantsReducedMotion_ || hasAnimationsOff_; }

 Q_SIGNALS:
  void changed();

 private Q_SLOTS:
  void settingChanged(const QString& group, const QString& key, const QDBusVariant& value);

 private:
  void askAll();
  void ask(const QString& group, const QString& key);
  void take(const QString& group, const QString& key, const QVariant& value);

  std::optional<bool> wantsDark_;
  bool wantsReducedMotion_ = false;
  bool hasAnimationsOff_ = false;
};

}  // namespace vimbrel::desktop
