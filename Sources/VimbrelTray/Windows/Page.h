// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QWidget>

#include "Client/DesktopModel.h"

namespace vimbrel::desktop {

/// One page of the main window.
class Page : public QWidget {
  Q_OBJECT

 public:
  explicit Page(DesktopModel& model) : model_(model) {}
  /// The page has come to the front, or the application has come back while it is there.
  virtual void refresh() = 0;
  /// The situation has changed while the page is at the front.
  virtual void takeSituation() {}
  /// The colours have changed while the page is at the front.
  virtual void restyle() { refresh(); }

 Q_SIGNALS:
  /// A sentence for the window's head; empty takes it away.
  void problem(const QString& text);

 protected:
  /// Calls a method and shows what went wrong; `done` is called with a result only.
  void ask(const std::string& method, const nlohmann::json& params,
           std::function<void(const nlohmann::json&)> done);

  DesktopModel& model_;
};

}  // namespace vimbrel::desktop
