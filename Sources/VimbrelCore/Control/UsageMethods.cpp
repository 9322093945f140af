// SPDX-License-Identifier: Apache-2.0
#include "Control/UsageMethods.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "AgentMonitoring/UsageExport.h"
#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "AgentMonitoring/UsageReports.h"
#include "Control/RpcResult.h"
#include "Domain/BudgetCodec.h"
#include "Domain/RatesFile.h"
#include "Domain/UsageCodec.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::unexpected<RpcError> notRecorded() {
  return std::unexpected(
      RpcError{RpcFault::operationFailed,
               sentence("usage is not recorded: another Vimbrel may have the store open (see the log)")});
}

std::unexpected<RpcError> failed(std::string message) {
  return std::unexpected(RpcError{RpcFault::operationFailed, std::move(message)});
}

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

/// A day as its first or its last instant, or an ISO 8601 time.
std::optional<Instant> momentOf(const std::string& text, bool isEnd, const CalendarZone& zone) {
  const auto day = parseDay(text);
  if (!day) return parseIso8601(text);
  if (!isEnd) return zone.startOf(*day);
  // Ranges include both ends; a day ends before the next one starts.
  const auto next = zone.startOf(std::chrono::sys_days{*day} + std::chrono::days{1});
  return instantFromUnixSeconds(std::nextafter(unixSeconds(next), 0.0));
}

std::expected<UsageQuery, std::string> queryOf(const json& params) {
  StrictJsonObject fields(params, "usage.report");
  UsageQuery query;
  const auto by = fields.optionalString("by").value_or("daily");
  const auto since = fields.optionalString("since");
  const auto until = fields.optionalString("until");
  const auto agent = fields.optionalString("agent");
  const auto zone = fields.optionalString("timezone");
  if (fields.error()) return std::unexpected(*fields.error());
  const auto grouping = usageGroupingFromName(by);
  if (!grouping) {
    return std::unexpected("\"by\" is one of daily, weekly, monthly, sessions, models, projects, blocks");
  }
  query.grouping = *grouping;
  if (zone) {
    auto named = CalendarZone::named(*zone);
    if (!named)
      return std::unexpected(sentence("there is no time zone %1; names are like Europe/Berlin", {*zone}));
    query.zone = *std::move(named);
  }
  for (const auto& [text, target, isEnd] :
       {std::tuple(&since, &query.since, false), std::tuple(&until, &query.until, true)}) {
    if (!*text) continue;
    *target = momentOf(**text, isEnd, query.zone);
    if (!*target) {
      return std::unexpected(
          sentence("%1 takes a day such as 2026-01-31, or an ISO 8601 time", {isEnd ? "until" : "since"}));
    }
  }
  if (query.since && query.until && *query.until < *query.since) {
    return std::unexpected(sentence("--until is before --since"));
  }
  if (agent) {
    query.agent = agentTypeFromRawValue(*agent);
    if (!query.agent) return std::unexpected(sentence("there is no agent %1", {*agent}));
  }
  return query;
}

json documentOf(const UsageReport& report) {
  json rows = json::array();
  for (const auto& row : report.rows) {
    auto document = toJson(row.summary);
    document["key"] = row.key;
    rows.push_back(std::move(document));
  }
  return {
      {"rows", std::move(rows)}, {"total", toJson(report.total)}, {"unpricedModels", report.unpricedModels}};
}

json documentOf(const HistoryImport::State& state) {
  json document{{"isRunning", state.isRunning},          {"ended", state.ended},
                {"filesDone", state.progress.filesDone}, {"filesInAll", state.progress.filesInAll},
                {"bytesDone", state.progress.bytesDone}, {"bytesInAll", state.progress.bytesInAll}};
  if (state.latest) {
    const auto& latest = *state.latest;
    document["latest"] = {{"filesRead", latest.filesRead},     {"filesUnchanged", latest.filesUnchanged},
                          {"filesFailed", latest.filesFailed}, {"bytesRead", latest.bytesRead},
                          {"eventsFound", latest.eventsFound}, {"eventsRecorded", latest.eventsRecorded}};
  }
  return document;
}

/// Runs `work` where the store is and answers on the main queue.
void answerFromStore(const std::shared_ptr<UsageCoordinator>& usage,
                     const std::shared_ptr<TaskQueue>& mainQueue, RpcReply reply,
                     std::function<RpcResult(UsageStore&)> work) {
  if (!usage) return reply(notRecorded());
  auto shared = std::make_shared<RpcReply>(std::move(reply));
  usage->withStore([mainQueue, shared, work = std::move(work)](UsageStore* store) {
    RpcResult result = store != nullptr ? work(*store) : RpcResult(notRecorded());
    mainQueue->post([shared, result = std::move(result)] { (*shared)(result); });
  });
}

void addReports(RpcDispatcher& methods, const UsageServices& services, const Clock& clock,
                const std::shared_ptr<TaskQueue>& mainQueue) {
  const auto usage = services.coordinator;
  methods.addLater("usage.today", [=](const json&, RpcReply reply) {
    answerFromStore(usage, mainQueue, std::move(reply),
                    [](UsageStore& store) -> RpcResult { return toJson(store.todaySummary()); });
  });
  methods.addLater("usage.report", [=](const json& params, RpcReply reply) {
    const auto query = queryOf(params);
    if (!query) return reply(RpcResult(invalid(query.error())));
    auto shared = std::make_shared<RpcReply>(std::move(reply));
    const auto report = [=, query = *query] {
      answerFromStore(usage, mainQueue, RpcReply([shared](const RpcResult& result) { (*shared)(result); }),
                      [query](UsageStore& store) -> RpcResult {
                        const ImportIndex index;
                        return documentOf(makeUsageReport(store, query, [&](std::string_view session) {
                          return index.projectOf(session);
                        }));
                      });
    };
    // Which directory a session of today belongs to is learnt by reading its log; what did not change is not
    // opened.
    if (usage && query->grouping == UsageGrouping::projects) {
      usage->importHistory([mainQueue, report] { mainQueue->post(report); });
    } else {
      report();
    }
  });
  methods.addLater("usage.export", [=, &clock](const json& params, RpcReply reply) {
    StrictJsonObject fields(params, "usage.export");
    const auto name = fields.optionalString("format").value_or("json");
    if (fields.error()) return reply(RpcResult(invalid(*fields.error())));
    const auto format = usageExportFormatFromName(name);
    if (!format) return reply(RpcResult(invalid("\"format\" is one of json, prometheus, otlp-json")));
    answerFromStore(usage, mainQueue, std::move(reply),
                    [format = *format, &clock](UsageStore& store) -> RpcResult {
                      return json{{"document", exportUsage(store, format, clock.now())}};
                    });
  });
  methods.add("usage.reset", [usage](const json&) -> RpcResult {
    if (!usage) return notRecorded();
    usage->resetUsageData();
    return json::object();
  });
  methods.add("usage.rates",
              [card = services.card, problem = services.ratesProblem](const json&) -> RpcResult {
                json rows = json::array();
                if (card) {
                  for (const auto& row : card->rows()) {
                    json document{{"model", row.key},
                                  {"input", row.rate.inputPerMillionUSD},
                                  {"output", row.rate.outputPerMillionUSD},
                                  {"cacheRead", row.rate.cacheReadPerMillionUSD},
                                  {"cacheWrite", row.rate.cacheWritePerMillionUSD},
                                  {"reasoning", row.rate.reasoningPerMillionUSD}};
                    if (row.contextWindow) document["contextWindow"] = *row.contextWindow;
                    rows.push_back(std::move(document));
                  }
                }
                json document{{"models", std::move(rows)}, {"file", ratesFile::defaultPath()}};
                if (!problem.empty()) document["problem"] = problem;
                return document;
              });
}

void addImport(RpcDispatcher& methods, const UsageServices& services) {
  methods.add("usage.import",
              [usage = services.coordinator, import = services.import](const json& params) -> RpcResult {
                StrictJsonObject fields(params, "usage.import");
                const auto opensAll = fields.optionalBoolean("all").value_or(false);
                if (fields.error()) return invalid(*fields.error());
                if (!usage || !import) return notRecorded();
                if (opensAll) import->openEveryFileNextTime();
                // One that runs already may have passed the files that the caller means.
                const auto before = import->state();
                usage->importHistory({});
                return json{{"endedWhenDone", before.ended + (before.isRunning ? 2 : 1)}};
              });
  methods.add("usage.importState", [import = services.import](const json&) -> RpcResult {
    if (!import) return notRecorded();
    return documentOf(import->state());
  });
}

json agentBudgets(UsageCoordinator& usage) {
  json reports = json::array();
  for (const auto& [agent, report] : usage.latestBudgetReports().get()) {
    auto document = toJson(report, DateCoding::iso8601);
    document["summary"] = report.lowBudgetAlert ? report.actionableSummaryLine() : report.idleSummaryLine();
    reports.push_back(std::move(document));
  }
  return reports;
}

void addBudgets(RpcDispatcher& methods, const UsageServices& services, const Clock& clock,
                const std::shared_ptr<TaskQueue>& mainQueue) {
  const auto usage = services.coordinator;
  const auto book = services.book;
  methods.addLater("budgets", [=, &clock](const json&, RpcReply reply) {
    if (!usage || !book) return reply(notRecorded());
    answerFromStore(usage, mainQueue, std::move(reply),
                    [=, agents = agentBudgets(*usage), now = clock.now()](UsageStore& store) -> RpcResult {
                      json document{{"budgets", agents}, {"money", json::array()}};
                      const auto standings = standingsNow(store, *book, now, usage->directories());
                      if (!standings) document["problem"] = standings.error();
                      for (const auto& standing : standings.value_or(std::vector<BudgetStanding>{})) {
                        document["money"].push_back(toJson(standing));
                      }
                      return document;
                    });
  });
  methods.add("budgets.set", [watch = services.budgetWatch, book](const json& params) -> RpcResult {
    const auto budget = moneyBudgetFromJson(params);
    if (!budget) return invalid(budget.error());
    if (!book) return notRecorded();
    if (const auto set = book->set(*budget); !set) return failed(set.error());
    if (watch) watch->check();
    return json::object();
  });
  methods.add("budgets.remove", [book](const json& params) -> RpcResult {
    auto named = params;
    if (named.is_object()) named["amountUSD"] = 1;  // The scope alone says which one.
    const auto budget = moneyBudgetFromJson(named);
    if (!budget) return invalid(budget.error());
    if (!book) return notRecorded();
    const auto removed = book->remove(budget->scope);
    if (!removed) return failed(removed.error());
    return json{{"removed", *removed}};
  });
}

void addStatusLine(RpcDispatcher& methods, const UsageServices& services,
                   const std::shared_ptr<TaskQueue>& mainQueue) {
  methods.addLater("statusLine.report", [=, usage = services.coordinator](const json& params,
                                                                          RpcReply reply) {
    StrictJsonObject fields(params, "statusLine.report");
    const auto agent = agentTypeFromRawValue(fields.string("agent"));
    MeasuredBudget measured{.sessionId = fields.optionalString("sessionId"),
                            .modelId = fields.optionalString("model"),
                            .source = "status-line"};
    const auto window = fields.optionalInteger("contextWindow");
    const auto contextUsed = fields.optionalNumber("contextUsedPercent");
    const auto cost = fields.optionalNumber("costUSD");
    const auto quotaUsed = fields.optionalNumber("quotaUsedPercent");
    const auto quotaWindow = fields.optionalInteger("quotaWindowMinutes");
    const auto resetsAt = fields.optionalNumber("quotaResetsAt");
    if (fields.error()) return reply(RpcResult(invalid(*fields.error())));
    if (!agent) return reply(RpcResult(invalid("there is no such agent")));
    if (!usage) return reply(RpcResult(notRecorded()));
    if (window && contextUsed && *window > 0) {
      const auto consumed = std::clamp(*contextUsed, 0.0, 100.0) / 100 * static_cast<double>(*window);
      measured.context = ContextBudget::create(*window, std::llround(consumed));
    }
    if (cost && *cost >= 0) measured.cost = CostBudget{*cost, false};
    if (quotaUsed) {
      AccountQuotaBudget quota{
          .percentageRemaining = 100 - *quotaUsed, .usedPercent = *quotaUsed, .windowMinutes = quotaWindow};
      if (resetsAt) quota.resetsAt = instantFromUnixSeconds(*resetsAt);
      measured.quota = std::move(quota);
    }
    usage->setMeasuredBudget(*agent, std::move(measured));
    answerFromStore(usage, mainQueue, std::move(reply), [](UsageStore& store) -> RpcResult {
      return json{{"today", toJson(store.todaySummary())}};
    });
  });
}

}  // namespace

void addUsageMethods(ControlServer& server, const UsageServices& usage, const Clock& clock,
                     const std::shared_ptr<TaskQueue>& mainQueue) {
  auto& methods = server.methods();
  addReports(methods, usage, clock, mainQueue);
  addImport(methods, usage);
  addBudgets(methods, usage, clock, mainQueue);
  addStatusLine(methods, usage, mainQueue);
}

}  // namespace vimbrel
