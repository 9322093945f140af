// SPDX-License-Identifier: Apache-2.0
#include "Windows/Page.h"

#include <nlohmann/json.hpp>

namespace vimbrel::desktop {

void Page::ask(const std::string& method, const nlohmann::json& params,
               std::function<void(const nlohmann::json&)> done) {
  model_.link().call(method, params, this, [this, done = std::move(done)](const Answer& answer) {
    if (!answer) return Q_EMIT problem(QString::fromStdString(answer.error()));
    done(*answer);
  });
}

}  // namespace vimbrel::desktop
