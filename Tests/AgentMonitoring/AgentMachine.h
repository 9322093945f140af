// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "AgentMonitoring/AgentRegistry.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// A user's machine in a directory: "home" below it is the home directory, "bin" the search path, and
/// everything else the system's root.
class AgentMachine {
 public:
  AgentMachine() {
    for (const auto* folder : {"home", "bin"}) std::filesystem::create_directories(at(folder));
    environment.home = at("home");
    environment.path = at("bin");
    environment.configurationHome = at("home/.config");
    environment.dataHome = at("home/.local/share");
    environment.claudeConfiguration = at("home/.claude");
    environment.codexHome = at("home/.codex");
    environment.applicationDirectories = {at("home/.local/share/applications"), at("usr/share/applications")};
    environment.systemRoot = directory_.path();
  }

  [[nodiscard]] std::string at(const std::string& path) const { return directory_.file(path); }

  std::string write(const std::string& path, const std::string& contents = "") const {
    const std::filesystem::path file(at(path));
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << contents;
    return file;
  }

  /// A program that runs this script.
  std::string program(const std::string& path, const std::string& script = "echo 1.2.3") const {
    const auto file = write(path, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(file, std::filesystem::perms::owner_all);
    return file;
  }

  void run(const std::vector<std::string>& applications) {
    class Running final : public RunningApplications {
     public:
      std::vector<RunningApplication> applications;
      std::vector<RunningApplication> list() override { return applications; }
    };
    const auto running = std::make_shared<Running>();
    for (const auto& name : applications) running->applications.push_back({name, "", 1});
    running->applications.push_back({std::nullopt, "cursor.without.name", 2});
    environment.runningApplications = running;
  }

  [[nodiscard]] IntegrationStatus detect(AgentType agent) const {
    return AgentRegistry(environment).adapter(agent)->detect();
  }
  [[nodiscard]] std::vector<std::string> configuredIn(AgentType agent) const {
    return AgentRegistry(environment).adapter(agent)->configuredIn();
  }

 private:
  TemporaryDirectory directory_;

 public:
  AgentEnvironment environment;
};

}  // namespace vimbrel
