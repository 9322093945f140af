// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/Processes/AgentProcesses.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace vimbrel {
namespace {

using namespace std::chrono_literals;
using std::string_view_literals::operator""sv;

/// Older than any helper that an agent runs for one hook.
constexpr Seconds longLived{30};
/// Two events this far apart do not come from one run of a hook.
constexpr auto separateEvents = 5s;
/// A session may move to another process (it is resumed elsewhere), but not often.
constexpr auto lookInterval = 5s;

/// The last part of a path, in lower case and without the ending of a script.
std::string programName(std::string_view path) {
  if (const auto slash = path.rfind('/'); slash != std::string_view::npos) path.remove_prefix(slash + 1);
  std::string name(path);
  std::ranges::transform(name, name.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const auto ending : {".js"sv, ".mjs"sv, ".cjs"sv, ".py"sv, ".exe"sv}) {
    if (name.ends_with(ending)) name.resize(name.size() - ending.size());
  }
  return name;
}

bool isOneOf(std::string_view name, const auto& names) {
  return std::ranges::find(names, name) != names.end();
}

/// "codex", and "codex-x86_64-unknown-linux-musl" as some packages call it.
bool isNamed(std::string_view name, std::string_view program) {
  return name == program || (name.starts_with(program) && name[program.size()] == '-');
}

/// Where packages keep the script that an interpreter is given, when the script's own name says little.
std::string_view packageOf(AgentType agent) {
  switch (agent) {
    case AgentType::claude:
      return "/claude-code/";
    case AgentType::codex:
      return "/@openai/codex/";
    case AgentType::gemini:
      return "/gemini-cli/";
    case AgentType::opencode:
      return "/opencode-ai/";
    default:
      return {};
  }
}

std::vector<std::string_view> wordsOf(std::string_view command) {
  std::vector<std::string_view> words;
  while (!command.empty()) {
    const auto end = std::min(command.find(' '), command.size());
    if (end > 0) words.push_back(command.substr(0, end));
    command.remove_prefix(std::min(end + 1, command.size()));
  }
  return words;
}

}  // namespace

bool isAgentProgram(AgentType agent, std::string_view command) {
  if (agent == AgentType::custom) return false;
  const auto words = wordsOf(command);
  if (words.empty()) return false;
  const auto own = rawValue(agent);
  const auto program = programName(words[0]);
  if (isNamed(program, own)) return true;
  constexpr std::array interpreters{"node"sv, "nodejs"sv, "bun"sv, "deno"sv, "python"sv, "python3"sv, "uv"sv};
  if (!isOneOf(program, interpreters) && !program.starts_with("python3.")) return false;
  const auto script = std::find_if(words.begin() + 1, words.end(), [](std::string_view word) {
    return !word.starts_with('-') && word != "run";
  });
  if (script == words.end()) return false;
  const auto package = packageOf(agent);
  return isNamed(programName(*script), own) || (!package.empty() && script->contains(package));
}

void AgentProcesses::heard(const HookEvent& event, std::int32_t sender) {
  const auto now = clock_.monotonic();
  {
    const std::lock_guard guard(lock_);
    if (event.state == AgentState::completed) {
      // It has said goodbye itself; its process may end whenever it likes.
      if (const auto known = sessions_.find(event.sessionId); known != sessions_.end())
        sessions_.erase(known);
      return;
    }
    const auto known = sessions_.find(event.sessionId);
    if (known != sessions_.end() && now - known->second.lookedAt < lookInterval) return;
  }
  if (sender <= 0) return;
  const auto ancestors = ancestry_->ancestorsOf(sender);
  const AncestorProcess* agent = nullptr;
  for (const auto& ancestor : ancestors) {
    if (isAgentProgram(event.agent, ancestor.command)) agent = &ancestor;
  }

  const std::lock_guard guard(lock_);
  auto known = sessions_.find(event.sessionId);
  if (known == sessions_.end()) {
    makeRoom();
    known = sessions_.emplace(event.sessionId, Session{}).first;
  }
  auto& session = known->second;
  session.lookedAt = now;
  if (agent == nullptr) {
    // Another way of running the hook than before: nothing is known of where the session lives now.
    session.agent.reset();
    return;
  }
  if (session.agent == agent->identity) {
    session.hasLasted = session.hasLasted || now - session.foundAt >= separateEvents;
    return;
  }
  session.agent = agent->identity;
  session.foundAt = now;
  session.hasLasted = agent->age >= longLived;
}

void AgentProcesses::makeRoom() {
  if (sessions_.size() < mostSessions) return;
  sessions_.erase(
      std::ranges::min_element(sessions_, {}, [](const auto& each) { return each.second.lookedAt; }));
}

std::vector<std::string> AgentProcesses::takeEnded() {
  std::vector<std::pair<std::string, ProcessIdentity>> watched;
  {
    const std::lock_guard guard(lock_);
    for (const auto& [id, session] : sessions_) {
      if (session.agent) watched.emplace_back(id, *session.agent);
    }
  }
  std::erase_if(watched, [this](const auto& each) { return ancestry_->isAlive(each.second); });
  std::vector<std::string> ended;
  const std::lock_guard guard(lock_);
  for (const auto& [id, process] : watched) {
    const auto known = sessions_.find(id);
    // An event may have moved the session to another process meanwhile.
    if (known == sessions_.end() || known->second.agent != process) continue;
    if (known->second.hasLasted) ended.push_back(id);
    sessions_.erase(known);
  }
  return ended;
}

}  // namespace vimbrel
