// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <QString>
#include <functional>

class QWidget;

namespace vimbrel::desktop {

/// Asks where to, and saves a text there in one step, readable by its owner only. `failed` gets a sentence.
void saveText(QWidget& parent, const QString& title, const QString& name, const QString& text,
              std::function<void(const QString&)> failed);

}  // namespace vimbrel::desktop
