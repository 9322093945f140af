// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Adapters/ClaudeCodeAdapter.h"

#include <nlohmann/json.hpp>
#include <set>

#include "AgentMonitoring/Adapters/ExecutableDiscovery.h"
#include "AgentMonitoring/Adapters/SnippetText.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

/// Looks for the relay in the value of the top-level key "hooks". It builds no tree: a configuration that is
/// nested a million deep must not exhaust the stack.
class HooksReader final : public nlohmann::json_sax<nlohmann::json> {
 public:
  [[nodiscard]] bool nameTheRelay() const { return found_; }

  bool null() override { return endValue(); }
  bool boolean(bool) override { return endValue(); }
  bool number_integer(number_integer_t) override { return endValue(); }
  bool number_unsigned(number_unsigned_t) override { return endValue(); }
  bool number_float(number_float_t, const string_t&) override { return endValue(); }
  bool binary(binary_t&) override { return endValue(); }
  bool string(string_t& text) override {
    look(text);
    return endValue();
  }
  bool key(string_t& name) override {
    if (depth_ == 1 && isObject_) {
      isInHooks_ = name == "hooks";
      if (isInHooks_) found_ = false;  // Of a repeated key the last counts.
    } else {
      look(name);
    }
    return true;
  }
  bool start_object(std::size_t) override {
    if (depth_ == 0) isObject_ = true;
    ++depth_;
    return true;
  }
  bool start_array(std::size_t) override {
    if (depth_ == 1) isInHooks_ = false;
    ++depth_;
    return true;
  }
  bool end_object() override { return end(); }
  bool end_array() override { return end(); }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  void look(const std::string& text) {
    if (isInHooks_ && depth_ > 1 && text.contains(relayProgramName)) found_ = true;
  }
  bool end() {
    --depth_;
    return endValue();
  }
  bool endValue() {
    if (depth_ == 1) isInHooks_ = false;
    return true;
  }

  std::size_t depth_ = 0;
  bool isObject_ = false;
  bool isInHooks_ = false;
  bool found_ = false;
};

bool hooksNameTheRelay(const std::string& path) {
  const auto text = readConfiguration(path);
  if (!text) return false;
  HooksReader reader;
  return nlohmann::json::sax_parse(*text, &reader) && reader.nameTheRelay();
}

}  // namespace

IntegrationStatus ClaudeCodeAdapter::detect() const {
  const auto executable =
      findExecutable(environment_.path, "claude").value_or(environment_.home + "/.local/bin/claude");
  IntegrationStatus status;
  status.integrationType = integrationType();
  status.isInstalled = isExecutableFile(executable);
  if (status.isInstalled) status.agentVersion = probeVersion(executable, environment_.probeBounds);
  status.isIntegrationActive = !configuredIn().empty();
  status.statusMessage = !status.isInstalled          ? sentence("Not installed")
                         : status.isIntegrationActive ? sentence("Hook active")
                                                      : sentence("Installed (Hooks not configured)");
  return status;
}

std::vector<std::string> ClaudeCodeAdapter::configuredIn() const {
  std::vector<std::string> files;
  for (const auto& path :
       std::set{environment_.home + "/.claude.json", environment_.home + "/.claude/settings.json",
                environment_.claudeConfiguration + "/settings.json"}) {
    if (hooksNameTheRelay(path)) files.push_back(environment_.shown(path));
  }
  return files;
}

std::optional<std::string> ClaudeCodeAdapter::manualSetupSnippet(std::string_view relayBinaryPath) const {
  return joinSnippet(
      {
          "// Add to the \"hooks\" object in ~/.claude.json:\n"
          "\"hooks\": {\n"
          "  \"UserPromptSubmit\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"PreToolExecution\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"PostToolExecution\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state working\", \"timeout\": 5000 }],\n"
          "  \"Stop\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state idle\", \"timeout\": 5000 }],\n"
          "  \"SessionEnd\": [{ \"type\": \"command\", \"command\": \"",
          " --agent claude --state completed\", \"timeout\": 5000 }]\n"
          "}",
      },
      relayBinaryPath);
}

std::optional<std::string> ClaudeCodeAdapter::manualSetupInstructions() const {
  return sentence(
      "1. Open ~/.claude.json in your text editor.\n"
      "2. Merge the \"hooks\" JSON snippet into your configuration.\n"
      "3. Save the file. Vimbrel will automatically track Claude Code lifecycle events.");
}

}  // namespace vimbrel
