// SPDX-License-Identifier: Apache-2.0
#include "Run/ChangeLines.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Domain/AgentType.h"
#include "Say.h"
#include "Terminal/DisplayText.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::string agentsOf(const json& summary) {
  std::string result;
  const auto& sessions = summary.at("sessions");
  for (const auto& session : sessions) {
    const auto raw = session.value("agentType", std::string{});
    const auto agent = agentTypeFromRawValue(raw);
    if (!result.empty()) result += ", ";
    result += agent ? std::string(displayName(*agent)) : raw;
    result += " " + session.value("state", std::string{});
  }
  const auto more = summary.at("sessionCount").get<std::size_t>() - sessions.size();
  if (more > 0) result += " and " + std::to_string(more) + " more";
  return result.empty() ? "none" : result;
}

}  // namespace

std::optional<std::string> ChangeLines::next(const json& summary, Instant now) {
  // A log: services keep these lines in the journal, and scripts read them.
  const InEnglish english;
  const auto line = summary.value("statusDescription", std::string{}) + "; agents: " + agentsOf(summary) +
                    "; held: " + heldSentence(summary);
  std::string comparable = line;
  if (summary.value("isHolding", false)) {
    // The debounce counts down in the reason.
    std::erase_if(comparable, [](char c) { return c >= '0' && c <= '9'; });
  }
  if (comparable == last_) return std::nullopt;
  last_ = std::move(comparable);
  return formatIso8601(now) + " " + displayable(line);
}

}  // namespace vimbrel
