// SPDX-License-Identifier: Apache-2.0
#include "Control/UsageMethods.h"

#include "AgentMonitoring/UsageExport.h"
#include "AgentMonitoring/UsageImport/ImportIndex.h"
#include "AgentMonitoring/UsageReports.h"
#include "Control/RpcResult.h"
#include "Domain/BudgetCodec.h"
#include "Domain/UsageCodec.h"
#include "Support/StrictJson.h"

namespace vimbrel {

using nlohmann::json;

namespace {

std::unexpected<RpcError> notRecorded() {
  return std::unexpected(
      RpcError{RpcFault::operationFailed,
               "usage is not recorded: another Vimbrel may have the store open (see the log)"});
}

std::unexpected<RpcError> invalid(std::string message) {
  return std::unexpected(RpcError{RpcFault::invalidParams, std::move(message)});
}

std::expected<UsageQuery, std::string> queryOf(const json& params) {
  StrictJsonObject fields(params, "usage.report");
  UsageQuery query;
  const auto by = fields.optionalString("by").value_or("daily");
  const auto since = fields.optionalString("since");
  const auto until = fields.optionalString("until");
  const auto agent = fields.optionalString("agent");
  if (fields.error()) return std::unexpected(*fields.error());
  const auto grouping = usageGroupingFromName(by);
  if (!grouping) {
    return std::unexpected("\"by\" is one of daily, weekly, monthly, sessions, models, projects, blocks");
  }
  query.grouping = *grouping;
  for (const auto& [text, target] : {std::pair(&since, &query.since), std::pair(&until, &query.until)}) {
    if (!*text) continue;
    *target = parseIso8601(**text);
    if (!*target) return std::unexpected("\"since\" and \"until\" are ISO 8601 times");
  }
  if (agent) {
    query.agent = agentTypeFromRawValue(*agent);
    if (!query.agent) return std::unexpected("there is no agent " + *agent);
  }
  return query;
}

json rowsOf(const UsageReport& report) {
  json rows = json::array();
  for (const auto& row : report.rows) {
    auto document = toJson(row.summary);
    document["key"] = row.key;
    rows.push_back(std::move(document));
  }
  return {{"rows", std::move(rows)}, {"total", toJson(report.total)}};
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

}  // namespace

void addUsageMethods(ControlServer& server, std::shared_ptr<UsageCoordinator> usage, const Clock& clock,
                     std::shared_ptr<TaskQueue> mainQueue) {
  auto& methods = server.methods();
  methods.addLater("usage.today", [=](const json&, RpcReply reply) {
    answerFromStore(usage, mainQueue, std::move(reply),
                    [](UsageStore& store) -> RpcResult { return toJson(store.todaySummary()); });
  });
  methods.addLater("usage.report", [=](const json& params, RpcReply reply) {
    const auto query = queryOf(params);
    if (!query) return reply(RpcResult(invalid(query.error())));
    answerFromStore(usage, mainQueue, std::move(reply), [query = *query](UsageStore& store) -> RpcResult {
      const ImportIndex index;
      return rowsOf(
          makeUsageReport(store, query, [&](std::string_view session) { return index.projectOf(session); }));
    });
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
  methods.add("budgets", [usage](const json&) -> RpcResult {
    json reports = json::array();
    if (usage) {
      for (const auto& [agent, report] : usage->latestBudgetReports().get()) {
        auto document = toJson(report, DateCoding::iso8601);
        const bool isRecent = report.lowBudgetAlert.has_value();
        document["summary"] = isRecent ? report.actionableSummaryLine() : report.idleSummaryLine();
        reports.push_back(std::move(document));
      }
    }
    return json{{"budgets", std::move(reports)}};
  });
  methods.add("quota.measured", [usage, &clock](const json& params) -> RpcResult {
    StrictJsonObject fields(params, "quota.measured");
    const auto agent = agentTypeFromRawValue(fields.string("agent"));
    AccountQuotaBudget quota;
    const auto used = fields.number("usedPercent");
    quota.windowMinutes = fields.optionalInteger("windowMinutes");
    if (const auto resetsAt = fields.optionalNumber("resetsAt"))
      quota.resetsAt = instantFromUnixSeconds(*resetsAt);
    if (fields.error()) return invalid(*fields.error());
    if (!agent) return invalid("there is no such agent");
    if (!usage) return notRecorded();
    // A window that has ended since it was measured tells nothing.
    if (quota.resetsAt && *quota.resetsAt < clock.now()) return json::object();
    quota.usedPercent = used;
    quota.percentageRemaining = 100 - used;
    usage->setMeasuredQuota(*agent, quota, "status-line");
    return json::object();
  });
}

}  // namespace vimbrel
