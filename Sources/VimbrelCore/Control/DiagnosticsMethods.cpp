// SPDX-License-Identifier: Apache-2.0
#include "Control/DiagnosticsMethods.h"

#include <memory>

#include "Control/RpcResult.h"

namespace vimbrel {

using nlohmann::json;

void addDiagnosticsMethods(ControlServer& server, Application& application, QueueProvider& queues) {
  const auto mainQueue = queues.mainQueue();
  const auto background = queues.makeQueue("com.vimbrel.diagnostics", QueueHome::background);
  server.methods().addLater(
      "diagnostics", [&application, mainQueue, background](const json&, RpcReply reply) {
        auto held = std::make_shared<RpcReply>(std::move(reply));
        background->post([write = application.diagnostics(), held, mainQueue] {
          mainQueue->post([held, document = write()] { (*held)(RpcResult(json{{"document", document}})); });
        });
      });
}

}  // namespace vimbrel
