// SPDX-License-Identifier: Apache-2.0
// For an operating system that has no adapters.
#include "Setup/HostSetup.h"

namespace vimbrel {
namespace {

std::unexpected<std::string> notHere() {
  return std::unexpected("this operating system has no login items that Vimbrel knows");
}

}  // namespace

LoginStart examineLoginStart() { return {}; }
std::expected<void, std::string> startByService(const LoginStart&, bool) { return notHere(); }
std::expected<void, std::string> startByDesktop() { return notHere(); }
std::expected<void, std::string> removeDesktopEntry() { return notHere(); }
std::expected<void, std::string> restartService(const std::string&) { return notHere(); }
bool isServiceActive(const std::string&) { return false; }
std::expected<void, std::string> startInBackground(const std::string&, const std::vector<std::string>&) {
  return notHere();
}
std::string ownProgram() { return "vimbrel"; }
bool isTrayRunning() { return false; }
bool isTrayStartedAtLogin() { return false; }

}  // namespace vimbrel
