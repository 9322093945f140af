// SPDX-License-Identifier: Apache-2.0
#include "DeepHold/DefaultSystemPowerController.h"

#include <string_view>

#include "Support/JsonWriter.h"
#include "Support/Subprocess.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

const SubprocessBounds bounds{10s, 256 * 1024};
constexpr std::string_view newlines = "\n\r\v\f";
constexpr std::string_view blanks = " \t";

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

/// Takes the front of `text` up to one of `separators`, those in front of it skipped.
std::string_view takePiece(std::string_view& text, std::string_view separators) {
  text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
  const auto piece = text.substr(0, text.find_first_of(separators));
  text.remove_prefix(piece.size());
  return piece;
}

}  // namespace

bool DefaultSystemPowerController::readSleepDisabled() {
  const auto result = runProgram(program_, {"-g", "custom"}, bounds);
  if (!result) {
    logger_.error("Cannot read the sleep setting: %s did not run to its end", program_.c_str());
    return false;
  }
  if (!isUtf8(result->output)) return false;
  std::string_view output = result->output;
  while (!output.empty()) {
    auto line = takePiece(output, newlines);
    const auto key = takePiece(line, blanks);
    if (key.starts_with("disablesleep") && takePiece(line, blanks) == "1") return true;
  }
  return false;
}

bool DefaultSystemPowerController::writeSleepDisabled(bool disabled) {
  const long value = disabled ? 1 : 0;
  const auto result = runProgram(program_, {"-a", "disablesleep", std::to_string(value)}, bounds);
  if (result && result->exitStatus == 0) {
    logger_.info("Executed pmset -a disablesleep %ld", value);
    return true;
  }
  // -1: it could not be started, or had to be killed.
  logger_.error("Failed to execute pmset -a disablesleep %ld, status: %d", value,
                result ? result->exitStatus : -1);
  return false;
}

}  // namespace vimbrel
