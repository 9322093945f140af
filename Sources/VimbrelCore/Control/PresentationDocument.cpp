// SPDX-License-Identifier: Apache-2.0
#include "Control/PresentationDocument.h"

#include <nlohmann/json.hpp>

#include "Control/DeepHoldMethods.h"
#include "Domain/BudgetCodec.h"

namespace vimbrel {

using nlohmann::json;

namespace {

/// The sessions themselves stand in the state once; the rows name them.
json idsOf(const SessionList& sessions) {
  json ids = json::array();
  for (const auto& session : sessions) ids.push_back(session->id);
  return ids;
}

json documentOf(const AgentFamilyPresentation& family) {
  json hosts = json::array();
  for (const auto& host : family.hosts) {
    hosts.push_back({{"id", host.id}, {"hostAppName", host.hostAppName}, {"sessions", idsOf(host.sessions)}});
  }
  json document{{"id", family.id()},
                {"displayName", family.displayName()},
                {"agentType", rawValue(family.agentType)},
                {"aggregateState", rawValue(family.aggregateState)},
                {"sessionCount", family.sessionCount},
                {"logicalSessionCount", family.logicalSessionCount},
                {"workingSessionCount", family.workingSessionCount},
                {"waitingSessionCount", family.waitingSessionCount},
                {"hostCount", family.hostCount},
                {"processCount", family.processCount},
                {"hosts", std::move(hosts)},
                {"sessions", idsOf(family.sessions)},
                {"summarySubtitle", family.summarySubtitle()},
                {"budgetSummaryLine", family.budgetSummaryLine()}};
  if (const auto alert = family.lowBudgetAlert()) document["lowBudgetAlert"] = toJson(*alert);
  return document;
}

}  // namespace

json presentationDocument(const ControlledApplication& application) {
  json families = json::array();
  auto mood = VimbrelVisualState::idle;
  if (application.presentation != nullptr) {
    for (const auto& family : application.presentation->agentFamilies().get()) {
      families.push_back(documentOf(family));
    }
    mood = application.presentation->dominantVisualState().get();
  }
  json budgets = json::array();
  json alerts = json::object();
  if (application.usage != nullptr) {
    for (const auto& [agent, report] : application.usage->latestBudgetReports().get()) {
      auto document = toJson(report, DateCoding::iso8601);
      document["actionableSummaryLine"] = report.actionableSummaryLine();
      document["idleSummaryLine"] = report.idleSummaryLine();
      budgets.push_back(std::move(document));
    }
    for (const auto& [agent, alert] : application.usage->lowBudgetAlerts().get()) {
      alerts[std::string(rawValue(agent))] = toJson(alert);
    }
  }
  return {{"agentFamilies", std::move(families)},
          {"visualState", rawValue(mood)},
          {"budgets", std::move(budgets)},
          {"lowBudgetAlerts", std::move(alerts)},
          {"helperStatus", helperDocument(application)}};
}

}  // namespace vimbrel
