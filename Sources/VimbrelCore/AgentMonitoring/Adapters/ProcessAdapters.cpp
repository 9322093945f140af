// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/ProcessAdapters.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <mutex>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(c < 0x80 ? std::tolower(c) : c); });
  return lower;
}

/// True when the directory holds an entry whose name in lower case begins with `beginning` and ends with
/// `ending`.
bool holdsEntry(const std::string& directory, std::string_view beginning, std::string_view ending) {
  std::error_code error;  // An unreadable directory holds nothing for us.
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const auto name = lowerCase(entry->path().filename().string());
    if (name.starts_with(beginning) && name.ends_with(ending)) return true;
  }
  return false;
}

/// The places where Linux desktops keep an application: its executable, its desktop entry, the folders that
/// its own installers use, snap, flatpak, and AppImages where people put them.
bool isInstalledOnLinux(const AgentEnvironment& environment, const std::string& program) {
  if (findExecutable(environment.path, program)) return true;
  for (const auto& directory : environment.applicationDirectories) {
    if (holdsEntry(directory, program, ".desktop")) return true;
  }
  const auto& root = environment.systemRoot;
  std::string capitalised = program;
  capitalised.front() = static_cast<char>(std::toupper(static_cast<unsigned char>(capitalised.front())));
  for (const auto& place : {root + "/opt/" + program, root + "/opt/" + capitalised,
                            root + "/usr/share/" + program, root + "/snap/" + program}) {
    if (pathExists(place)) return true;
  }
  for (const auto& applications : {root + "/var/lib/flatpak/app", environment.dataHome + "/flatpak/app"}) {
    std::error_code error;  // Without flatpak there is nothing to see.
    for (std::filesystem::directory_iterator entry(applications, error), end; !error && entry != end;
         entry.increment(error)) {
      const auto name = lowerCase(entry->path().filename().string());
      // A flatpak's name is a reversed domain whose last part is the program's.
      if (name.ends_with("." + program)) return true;
    }
  }
  for (const auto* folder : {"/Applications", "/AppImages", "/.local/bin", "/bin", "/Downloads"}) {
    if (holdsEntry(environment.home + folder, program, ".appimage")) return true;
  }
  return holdsEntry(root + "/opt", program, ".appimage");
}

/// The list may be asked by one caller at a time, and detections run side by side.
std::vector<RunningApplication> runningApplicationsOf(const AgentEnvironment& environment) {
  static std::mutex lock;
  const std::lock_guard guard(lock);
  return environment.runningApplications->list();
}

}  // namespace

IntegrationStatus DesktopAgentAdapter::detect() const {
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled =
      std::any_of(markers_.begin(), markers_.end(),
                  [this](const std::string& marker) {
                    return pathExists(marker.starts_with('~') ? environment_.home + marker.substr(1)
                                                              : environment_.systemRoot + marker);
                  }) ||
      isInstalledOnLinux(environment_, program_);
  if (status.isInstalled) status.agentVersion = sentence("Detected");
  if (environment_.runningApplications) {
    for (const auto& application : runningApplicationsOf(environment_)) {
      if (lowerCase(application.localizedName.value_or("")).find(program_) != std::string::npos) {
        status.isIntegrationActive = true;
      }
    }
  }
  status.statusMessage = status.isIntegrationActive ? sentence("Running (Process signal)")
                         : status.isInstalled       ? sentence("Installed")
                                                    : sentence("Not installed");
  return status;
}

std::vector<std::string> DesktopAgentAdapter::configuredIn() const {
  if (!namesRelay(environment_.home + "/" + hooksFile_)) return {};
  return {hooksPath()};
}

AntigravityAdapter::AntigravityAdapter(AgentEnvironment environment)
    : DesktopAgentAdapter(
          AgentType::antigravity, std::move(environment),
          {"/Applications/Antigravity.app", "/Applications/Antigravity IDE.app", "~/.gemini/antigravity"},
          "antigravity", ".gemini/config/hooks.json") {}

std::optional<std::string> AntigravityAdapter::manualSetupInstructions() const {
  return sentence(
      "Antigravity is monitored automatically via background process heuristics and system workspace "
      "events. No manual configuration required.");
}

CursorAdapter::CursorAdapter(AgentEnvironment environment)
    : DesktopAgentAdapter(AgentType::cursor, std::move(environment),
                          {"/Applications/Cursor.app", "~/.cursor"}, "cursor", ".cursor/hooks.json") {}

std::optional<std::string> CursorAdapter::manualSetupInstructions() const {
  return sentence(
      "Cursor is monitored automatically via background process heuristics. No manual configuration "
      "required.");
}

WindsurfAdapter::WindsurfAdapter(AgentEnvironment environment)
    : DesktopAgentAdapter(AgentType::windsurf, std::move(environment),
                          {"/Applications/Windsurf.app", "~/.windsurf"}, "windsurf",
                          ".codeium/windsurf/hooks.json") {}

std::optional<std::string> WindsurfAdapter::manualSetupInstructions() const {
  return sentence(
      "Windsurf is monitored automatically via background process heuristics. No manual configuration "
      "required.");
}

IntegrationStatus AiderAdapter::detect() const {
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = findExecutable(environment_.path, "aider").has_value();
  if (status.isInstalled) status.agentVersion = sentence("Installed");
  status.statusMessage =
      status.isInstalled ? sentence("Installed (CLI executable detected)") : sentence("Not installed");
  return status;
}

std::vector<std::string> AiderAdapter::configuredIn() const {
  if (!namesRelay(environment_.home + "/.aider.conf.yml")) return {};
  return {"~/.aider.conf.yml"};
}

std::optional<std::string> AiderAdapter::manualSetupInstructions() const {
  return sentence("Aider is monitored automatically when active in your terminal shell.");
}

}  // namespace vimbrel
