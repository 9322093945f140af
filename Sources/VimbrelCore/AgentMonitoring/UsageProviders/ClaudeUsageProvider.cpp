// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"

#include <algorithm>
#include <utility>

#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t filesRead = 5;

std::vector<std::string> projectsBelow(const std::vector<std::string>& roots) {
  std::vector<std::string> directories;
  for (const auto& root : roots) directories.push_back(root + "/projects");
  return directories;
}

std::string stemOf(const std::string& path) {
  const auto name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.rfind('.'));
}

}  // namespace

std::vector<std::string> claudeRoots(const std::string& home, const std::string& configuration,
                                     const std::string& configDirectories) {
  std::vector<std::string> roots;
  const auto add = [&](std::string root) {
    while (root.size() > 1 && root.ends_with('/')) root.pop_back();
    if (root.starts_with('/') && std::find(roots.begin(), roots.end(), root) == roots.end()) {
      roots.push_back(std::move(root));
    }
  };
  for (std::size_t start = 0; start < configDirectories.size();) {
    const auto comma = std::min(configDirectories.find(',', start), configDirectories.size());
    add(configDirectories.substr(start, comma - start));
    start = comma + 1;
  }
  add(home + "/.claude");
  add(configuration + "/claude");
  return roots;
}

ClaudeUsageProvider::ClaudeUsageProvider(const std::vector<std::string>& roots,
                                         std::shared_ptr<TaskQueue> queue, const Clock& clock,
                                         const ModelRateCard& card, const TreeChangesFactory& changes)
    : PollingUsageProvider(AgentType::claude, std::move(queue), 3000ms, clock, Logger("usage.claude"),
                           "ClaudeUsageProvider active on " + projectsBelow(roots).front()),
      files_(
          projectsBelow(roots), [](std::string_view name) { return name.ends_with(".jsonl"); }, changes,
          clock),
      parser_(card) {}

bool ClaudeUsageProvider::sourceMayHaveChanged() {
  changed_ = files_.refresh() || changed_;
  return changed_;
}

std::vector<UsageEvent> ClaudeUsageProvider::readSource() {
  std::vector<UsageEvent> events;
  if (!std::exchange(changed_, false) && !files_.refresh()) return events;
  bool reported = false;  // The newest file that says something tells of the latest turn.
  for (const auto& path : files_.newest(filesRead)) {
    const auto latest = parseFile(path, fileOffsets_[path], &events);
    if (latest && !std::exchange(reported, true)) setReport(reportOf(*latest, path));
  }
  return events;
}

void ClaudeUsageProvider::findReport() {
  // What it learns of changes is not told twice: the next poll has to read them.
  changed_ = files_.refresh() || changed_;
  for (const auto& path : files_.newest(1)) {
    JsonLinesPosition fromStart;
    if (const auto latest = parseFile(path, fromStart, nullptr)) setReport(reportOf(*latest, path));
  }
}

std::optional<UsageEvent> ClaudeUsageProvider::parseFile(const std::string& path, JsonLinesPosition& position,
                                                         std::vector<UsageEvent>* events) {
  const auto session = stemOf(path);
  const auto now = clock().now();
  std::optional<UsageEvent> latest;
  ClaudeLogRecord record;
  JsonLinesReader reader;
  const auto times = isReadFromStart(path, position) ? LogTimes::all : LogTimes::wholeSecondsOnly;
  std::optional<TurnInterruption> interrupted;
  reader.read(path, position, [&](const JsonLinesReader::Line& line) {
    if (events != nullptr && line.isTerminated) {
      if (auto found = parser_.interruption(line.text)) interrupted = std::move(found);
    }
    if (line.isTerminated && !ClaudeLogParser::mayCarryUsage(line.text)) return true;
    const auto outcome = parser_.parse(line.text, line.number, session, now, times, record);
    if (outcome == ClaudeLogParser::Outcome::usage && events != nullptr) tellDirectory(record);
    if (outcome == ClaudeLogParser::Outcome::usage) {
      latest = parser_.eventOf(record);
      interrupted.reset();  // The agent went on.
      if (events != nullptr) events->push_back(*latest);
    }
    return outcome != ClaudeLogParser::Outcome::noJson;
  });
  if (interrupted && onTurnInterrupted) onTurnInterrupted(*interrupted);
  return latest;
}

void ClaudeUsageProvider::tellDirectory(const ClaudeLogRecord& record) const {
  if (record.directory && onSessionDirectory) onSessionDirectory(record.event.sessionId, *record.directory);
}

ProviderBudgetReport ClaudeUsageProvider::reportOf(const UsageEvent& event, const std::string& path) const {
  const auto now = clock().now();
  std::optional<CostBudget> cost;
  if (event.costEstimateUSD) cost = CostBudget{std::max(*event.costEstimateUSD, 0.0), true};
  return ProviderBudgetReport::make({
      .agentType = AgentType::claude,
      .sessionId = event.sessionId,
      .modelId = event.modelId,
      .context = BudgetMetric<ContextBudget>::known(
          ContextBudget::create(event.contextWindow.value_or(0), event.totalTokens.value_or(0)), 1.0,
          "claude-project-log"),
      .quota = BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable")),
      .sessionUsage = UsageMetrics{.inputTokens = event.inputTokens,
                                   .outputTokens = event.outputTokens,
                                   .cachedTokens = event.cachedTokens,
                                   .cacheWriteTokens = event.cacheWriteTokens,
                                   .reasoningTokens = event.reasoningTokens,
                                   .totalTokens = event.totalTokens,
                                   .contextWindow = event.contextWindow,
                                   .sessionCostEstimateUSD = std::nullopt,
                                   .recordedAt = now},
      .cost = cost,
      .lastUpdated = now,
      .source = "claude",
      .toldAt = files_.modifiedAt(path),
  });
}

}  // namespace vimbrel
