// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"

namespace vimbrel {

int diagnosticsCommand() {
  const auto answer = ask("diagnostics", nlohmann::json::object());
  if (!answer) return answer.error();
  // As it was written: the document is for people to read and to send.
  std::printf("%s\n", answer->value("document", "{}").c_str());
  return exitCode::done;
}

}  // namespace vimbrel
