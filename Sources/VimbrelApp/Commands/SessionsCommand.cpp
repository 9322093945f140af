// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

int sessionsCommand(Output output) {
  const auto answer = ask("sessions", nlohmann::json::object());
  if (!answer) return answer.error();
  if (output == Output::json) {
    printJson(*answer);
    return exitCode::done;
  }
  const auto lines =
      sessionLines(answer->value("sessions", nlohmann::json::array()), outputWidth(STDOUT_FILENO),
                   Palette::forDescriptor(STDOUT_FILENO), currentTime());
  printLines(lines.empty() ? std::vector<std::string>{say("No agents")} : lines);
  return exitCode::done;
}

}  // namespace vimbrel
