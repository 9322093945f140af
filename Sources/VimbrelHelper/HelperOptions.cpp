// SPDX-License-Identifier: Apache-2.0
#include "HelperOptions.h"

#include <cstdlib>

#include "DeepHold/HelperSocketPath.h"
#include "Support/Directories.h"

namespace vimbrel {

const char* const helperUsage =
    "Usage: vimbrel-helper [--user] [--socket PATH] [--state FILE] [--simulate]\n"
    "Keeps this machine awake with its lid closed for as long as somebody renews a lease.\n"
    "\n"
    "  --user         serve only the user that starts it, on that user's own socket\n"
    "  --socket PATH  listen at PATH\n"
    "  --state FILE   remember the lease across a restart in FILE\n"
    "  --simulate     keep the sleep setting in memory and touch nothing of this machine\n"
    "  --help         print this text\n"
    "  --version      print the version\n"
    "\n"
    "Started by systemd with a socket, it serves that one.\n";

namespace {

std::string defaultStateFile(bool user) {
  constexpr const char* name = "/deep-hold.json";
  if (user) return directories::applicationSupport() + "/Vimbrel" + name;
  const char* directory = std::getenv("STATE_DIRECTORY");  // Set by systemd; the first of several counts.
  if (directory == nullptr || directory[0] != '/') return std::string("/var/lib/vimbrel") + name;
  const std::string list = directory;
  return list.substr(0, list.find(':')) + name;
}

}  // namespace

std::expected<HelperOptions, std::string> parseHelperOptions(const std::vector<std::string>& arguments) {
  HelperOptions options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const auto& argument = arguments[i];
    if (argument == "--user") {
      options.user = true;
    } else if (argument == "--simulate") {
      options.simulate = true;
    } else if (argument == "--help") {
      options.help = true;
    } else if (argument == "--version") {
      options.version = true;
    } else if (argument == "--socket" || argument == "--state") {
      if (i + 1 == arguments.size() || arguments[i + 1].empty()) {
        return std::unexpected(argument + " needs a path");
      }
      (argument == "--socket" ? options.socketPath : options.stateFile) = arguments[++i];
    } else {
      return std::unexpected("unknown argument: " + argument);
    }
  }
  if (options.socketPath.empty()) {
    options.socketPath = options.user ? userHelperSocketPath() : systemHelperSocketPath;
  }
  if (options.stateFile.empty()) options.stateFile = defaultStateFile(options.user);
  return options;
}

}  // namespace vimbrel
