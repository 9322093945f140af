// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/CodexUsageProvider.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "Support/CalendarDay.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t filesRead = 5;

bool isRollout(std::string_view name) {
  return name.ends_with(".jsonl") && name.find("rollout") != std::string_view::npos;
}

std::string dayDirectory(const std::string& sessions, std::chrono::year_month_day day) {
  char text[48];
  std::snprintf(text, sizeof text, "/%04d/%02u/%02u/", static_cast<int>(day.year()),
                static_cast<unsigned>(day.month()), static_cast<unsigned>(day.day()));
  return sessions + text;
}

std::string stemOf(const std::string& path) {
  const auto name = path.substr(path.rfind('/') + 1);
  return name.substr(0, name.rfind('.'));
}

}  // namespace

CodexUsageProvider::CodexUsageProvider(const std::string& home, std::shared_ptr<TaskQueue> queue,
                                       const Clock& clock, const ModelRateCard& card,
                                       const TreeChangesFactory& changes)
    : PollingUsageProvider(AgentType::codex, std::move(queue), 2500ms, clock, Logger("usage.codex"),
                           "CodexUsageProvider started watching " + home + "/sessions"),
      sessions_(home + "/sessions"),
      card_(card),
      files_({sessions_}, isRollout, changes, clock),
      parser_(card) {}

std::vector<std::string> CodexUsageProvider::recentRollouts() const {
  const auto today = localDay(clock().now());
  const std::chrono::year_month_day yesterday{std::chrono::sys_days{today} - std::chrono::days{1}};
  const auto newestFirst = files_.newest(std::string::npos);
  std::vector<std::string> recent;
  for (const auto& path : newestFirst) {
    const auto directory = path.substr(0, path.rfind('/') + 1);
    if (directory == dayDirectory(sessions_, today) || directory == dayDirectory(sessions_, yesterday)) {
      recent.push_back(path);
    }
  }
  if (recent.empty()) recent = newestFirst;
  if (recent.size() > filesRead) recent.resize(filesRead);
  return recent;
}

bool CodexUsageProvider::sourceMayHaveChanged() {
  changed_ = files_.refresh() || changed_;
  return changed_;
}

std::vector<UsageEvent> CodexUsageProvider::readSource() {
  std::vector<UsageEvent> events;
  if (!std::exchange(changed_, false) && !files_.refresh()) return events;
  bool reported = false;  // The newest file that says something tells of the latest turn.
  for (const auto& path : recentRollouts()) {
    auto& state = fileOffsets_[path];
    if (isReadFromStart(path, state.position)) state = {};
    auto latest = parseFile(path, state, &events);
    if (latest && !std::exchange(reported, true)) setReport(std::move(*latest));
  }
  return events;
}

void CodexUsageProvider::findReport() {
  // What it learns of changes is not told twice: the next poll has to read them.
  changed_ = files_.refresh() || changed_;
  const auto recent = recentRollouts();
  if (recent.empty()) return;
  CodexRolloutState fromStart;
  if (auto latest = parseFile(recent.front(), fromStart, nullptr)) setReport(std::move(*latest));
}

std::shared_ptr<const std::vector<CodexFingerprint>> CodexUsageProvider::recordsOf(const std::string& id) {
  for (const auto& path : files_.all()) {
    if (path.find(id) == std::string::npos) continue;
    auto records = std::make_shared<std::vector<CodexFingerprint>>();
    JsonLinesReader reader;
    JsonLinesPosition start;
    CodexRolloutParser parser(card_);
    reader.read(path, start, [&](const JsonLinesReader::Line& line) {
      if (auto record = parser.fingerprint(line.text)) records->push_back(*record);
      return true;
    });
    return records;
  }
  return nullptr;
}

std::optional<ProviderBudgetReport> CodexUsageProvider::parseFile(const std::string& path,
                                                                  CodexRolloutState& state,
                                                                  std::vector<UsageEvent>* events) {
  const auto sessionId = stemOf(path);
  const auto now = clock().now();
  auto reading = CodexRolloutParser::freshReading();
  const auto times = state.position.offset == 0 ? LogTimes::all : LogTimes::wholeSecondsOnly;
  JsonLinesReader reader;
  const auto result = reader.read(path, state.position, [&](const JsonLinesReader::Line& line) {
    return parser_.take(
        line, sessionId, now, times, state, reading, [this](const std::string& id) { return recordsOf(id); },
        [&](UsageEvent event) {
          if (events != nullptr) events->push_back(std::move(event));
        });
  });
  if (result != JsonLinesResult::read) return std::nullopt;
  if (events != nullptr && state.directory && onSessionDirectory) {
    onSessionDirectory(sessionId, *state.directory);
  }
  if (events != nullptr && reading.abortedAt && onTurnInterrupted) {
    onTurnInterrupted({AgentType::codex, state.ownId, state.directory, *reading.abortedAt});
  }
  auto report = reportOf(sessionId, reading);
  report.toldAt = files_.modifiedAt(path);
  return report;
}

ProviderBudgetReport CodexUsageProvider::reportOf(const std::string& sessionId,
                                                  const CodexReading& reading) const {
  const auto now = clock().now();
  UsageMetrics usage;
  usage.recordedAt = now;
  BilledTokens billed;
  if (const auto& counts = reading.cumulative) {
    usage.inputTokens = counts->input;
    usage.outputTokens = counts->output;
    usage.cachedTokens = counts->cached;
    usage.reasoningTokens = counts->reasoning;
    usage.totalTokens = counts->figure();
    usage.contextWindow = reading.contextWindow;
    billed = BilledTokens::fromNestedCounts(counts->input, counts->output, counts->cached);
  }
  std::optional<CostBudget> cost;
  if (const auto price = card_.price(reading.model, billed)) cost = CostBudget{std::max(*price, 0.0), true};
  return ProviderBudgetReport::make({
      .agentType = AgentType::codex,
      .sessionId = sessionId,
      .modelId = reading.model,
      .context = reading.context ? BudgetMetric<ContextBudget>::known(*reading.context, 1.0, "codex-rollout")
                                 : BudgetMetric<ContextBudget>::unavailable(sentence("Context unavailable")),
      .quota = reading.quota
                   ? BudgetMetric<AccountQuotaBudget>::known(*reading.quota, 1.0, "codex-rate-limits")
                   : BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable")),
      .sessionUsage = usage,
      .cost = cost,
      .lastUpdated = now,
      .source = "codex",
  });
}

}  // namespace vimbrel
