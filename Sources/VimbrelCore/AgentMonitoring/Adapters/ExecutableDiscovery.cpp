// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"

#include <sys/stat.h>
#include <unistd.h>

#include "Support/AtomicFile.h"
#include "Support/JsonWriter.h"

namespace vimbrel {
namespace {

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string trimmed(const std::string& text) {
  constexpr const char* blanks = " \t\r\n\v\f";
  const auto first = text.find_first_not_of(blanks);
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

bool pathExists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

bool isExecutableFile(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

std::optional<std::string> findExecutable(const std::optional<std::string>& searchPath,
                                          std::string_view name) {
  if (!searchPath) return std::nullopt;
  std::string_view rest = *searchPath;
  while (!rest.empty()) {
    const auto colon = rest.find(':');
    const auto directory = rest.substr(0, colon);
    rest.remove_prefix(colon == std::string_view::npos ? rest.size() : colon + 1);
    if (directory.empty()) continue;
    auto candidate = std::string(directory) + "/" + std::string(name);
    if (isExecutableFile(candidate)) return candidate;
  }
  return std::nullopt;
}

std::optional<std::string> probeVersion(const std::string& executable, const SubprocessBounds& bounds) {
  const auto result = runProgram(executable, {"--version"}, bounds);
  if (!result || result->exitStatus != 0 || !isUtf8(result->output)) return std::nullopt;
  return trimmed(result->output);
}

std::optional<std::string> readConfiguration(const std::string& path) {
  constexpr std::size_t largest = 16U << 20U;
  auto text = readFile(path, largest);
  if (!text || !isUtf8(*text)) return std::nullopt;
  return std::move(*text);
}

bool namesRelay(const std::string& path) {
  const auto text = readConfiguration(path);
  return text && text->contains(relayProgramName);
}

}  // namespace vimbrel
