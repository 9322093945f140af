// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageExport.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_set>
#include <utility>
#include <vector>

#include "Support/JsonWriter.h"
#include "Support/SaturatingSum.h"

namespace vimbrel {
namespace {

using nlohmann::json;

/// Counts as the agent gives them: some agents count cached tokens inside input, and reasoning inside output.
struct Totals {
  std::array<std::int64_t, 5> tokens{};  // in the order of `tokenKinds`
  std::int64_t turns = 0;
  double costUSD = 0;
  bool hasCost = false;

  void add(const Totals& other) {
    for (std::size_t i = 0; i < tokens.size(); ++i) tokens[i] = saturatingAdd(tokens[i], other.tokens[i]);
    turns += other.turns;
    costUSD += other.costUSD;
    hasCost |= other.hasCost;
  }
};
constexpr std::array<std::string_view, 5> tokenKinds{"input", "output", "cached", "cache_write", "reasoning"};

using ByModel = std::map<std::string, Totals, std::less<>>;

struct AgentTotals {
  ByModel models;
  std::int64_t sessions = 0;
};
using Exported = std::map<std::string_view, AgentTotals>;

Totals totalsOf(const UsageEventView& event) {
  // A count below zero is a log's mistake, and a counter never falls.
  const auto count = [](std::optional<std::int64_t> value) {
    return std::max<std::int64_t>(value.value_or(0), 0);
  };
  Totals totals;
  totals.tokens = {count(event.inputTokens), count(event.outputTokens), count(event.cachedTokens),
                   count(event.cacheWriteTokens), count(event.reasoningTokens)};
  totals.turns = 1;
  if (event.costEstimateUSD && *event.costEstimateUSD >= 0) {
    totals.costUSD = *event.costEstimateUSD;
    totals.hasCost = true;
  }
  return totals;
}

constexpr std::size_t longestModelName = 200;

/// Keeps the models with the most turns and puts the rest together.
void limitModels(ByModel& models) {
  if (models.size() <= maximumExportedModels) return;
  std::vector<ByModel::iterator> order;
  for (auto model = models.begin(); model != models.end(); ++model) order.push_back(model);
  std::ranges::stable_sort(order,
                           [](const auto& a, const auto& b) { return a->second.turns > b->second.turns; });
  Totals others;
  for (auto model = order.begin() + (maximumExportedModels - 1); model != order.end(); ++model) {
    others.add((*model)->second);
    models.erase(*model);
  }
  models["other"].add(others);
}

Exported collect(const UsageStore& store) {
  Exported exported;
  std::map<std::string_view, std::unordered_set<std::string>> sessions;
  constexpr double always = 1e300;
  store.forEachEvent(instantFromUnixSeconds(-always), instantFromUnixSeconds(always),
                     [&](const UsageEventView& event) {
                       const auto agent = rawValue(event.agentType);
                       auto& models = exported[agent].models;
                       auto name = event.modelId.value_or("unknown");
                       if (name.size() > longestModelName) name = "other";
                       auto model = models.find(name);
                       if (model == models.end()) model = models.emplace(std::string(name), Totals{}).first;
                       model->second.add(totalsOf(event));
                       auto& known = sessions[agent];
                       if (!known.contains(std::string(event.sessionId))) known.emplace(event.sessionId);
                     });
  for (auto& [agent, totals] : exported) {
    limitModels(totals.models);
    totals.sessions = static_cast<std::int64_t>(sessions[agent].size());
  }
  return exported;
}

// -- Prometheus

/// A label's value may hold anything but an unescaped quotation mark, backslash or line end.
std::string labelValue(std::string_view text) {
  std::string escaped;
  for (const char byte : text) {
    if (byte == '\\' || byte == '"') escaped += '\\';
    if (byte == '\n') {
      escaped += "\\n";
    } else {
      escaped += byte;
    }
  }
  return escaped;
}

class Exposition {
 public:
  void family(std::string_view name, std::string_view help) {
    name_ = name;
    text_ += "# HELP " + name_ + " " + std::string(help) + "\n# TYPE " + name_ + " counter\n";
  }
  void sample(std::initializer_list<std::pair<std::string_view, std::string_view>> labels,
              const std::string& value) {
    text_ += name_ + "{";
    bool first = true;
    for (const auto& [label, content] : labels) {
      text_ += (first ? "" : ",") + std::string(label) + "=\"" + labelValue(content) + "\"";
      first = false;
    }
    text_ += "} " + value + "\n";
  }
  [[nodiscard]] std::string take() { return std::move(text_); }

 private:
  std::string name_;
  std::string text_;
};

std::string prometheusText(const Exported& exported) {
  Exposition text;
  text.family("vimbrel_usage_tokens_total",
              "Tokens that the agents on this machine used, as each counts them.");
  for (const auto& [agent, totals] : exported) {
    for (const auto& [model, sums] : totals.models) {
      for (std::size_t i = 0; i < tokenKinds.size(); ++i) {
        if (sums.tokens[i] == 0) continue;
        text.sample({{"agent", agent}, {"model", model}, {"kind", tokenKinds[i]}},
                    std::to_string(sums.tokens[i]));
      }
    }
  }
  text.family("vimbrel_usage_turns_total", "Turns that used tokens.");
  for (const auto& [agent, totals] : exported) {
    for (const auto& [model, sums] : totals.models) {
      text.sample({{"agent", agent}, {"model", model}}, std::to_string(sums.turns));
    }
  }
  text.family("vimbrel_usage_sessions_total", "Sessions that used tokens.");
  for (const auto& [agent, totals] : exported) {
    text.sample({{"agent", agent}}, std::to_string(totals.sessions));
  }
  text.family("vimbrel_usage_cost_usd_total",
              "Estimated cost in US dollars, of the models whose price is known.");
  for (const auto& [agent, totals] : exported) {
    for (const auto& [model, sums] : totals.models) {
      if (sums.hasCost) text.sample({{"agent", agent}, {"model", model}}, shortestDecimal(sums.costUSD));
    }
  }
  return text.take();
}

// -- OpenTelemetry

class OtlpMetric {
 public:
  OtlpMetric(const char* name, const char* unit, const char* description, Instant now)
      : nanoseconds_(std::to_string(static_cast<std::int64_t>(unixSeconds(now))) + "000000000") {
    metric_ = {
        {"name", name},
        {"unit", unit},
        {"description", description},
        {"sum", {{"aggregationTemporality", 2}, {"isMonotonic", true}, {"dataPoints", json::array()}}}};
  }
  void point(std::initializer_list<std::pair<const char*, std::string_view>> attributes, const char* key,
             json value) {
    json list = json::array();
    for (const auto& [name, content] : attributes) {
      list.push_back({{"key", name}, {"value", {{"stringValue", content}}}});
    }
    metric_["sum"]["dataPoints"].push_back(
        {{"attributes", std::move(list)}, {"timeUnixNano", nanoseconds_}, {key, std::move(value)}});
  }
  [[nodiscard]] const json& document() const { return metric_; }

 private:
  std::string nanoseconds_;
  json metric_;
};

std::string otlpText(const Exported& exported, Instant now) {
  // 64-bit integers are strings in this encoding.
  const auto integer = [](std::int64_t value) { return json(std::to_string(value)); };
  OtlpMetric tokens("vimbrel.usage.tokens", "{token}", "Tokens used, as each agent counts them", now);
  OtlpMetric turns("vimbrel.usage.turns", "{turn}", "Turns that used tokens", now);
  OtlpMetric sessions("vimbrel.usage.sessions", "{session}", "Sessions that used tokens", now);
  OtlpMetric cost("vimbrel.usage.cost", "USD", "Estimated cost of the models whose price is known", now);
  for (const auto& [agent, totals] : exported) {
    sessions.point({{"agent", agent}}, "asInt", integer(totals.sessions));
    for (const auto& [model, sums] : totals.models) {
      for (std::size_t i = 0; i < tokenKinds.size(); ++i) {
        if (sums.tokens[i] == 0) continue;
        tokens.point({{"agent", agent}, {"model", model}, {"kind", tokenKinds[i]}}, "asInt",
                     integer(sums.tokens[i]));
      }
      turns.point({{"agent", agent}, {"model", model}}, "asInt", integer(sums.turns));
      if (sums.hasCost) cost.point({{"agent", agent}, {"model", model}}, "asDouble", sums.costUSD);
    }
  }
  json metrics = json::array();
  for (const auto* metric : {&tokens, &turns, &sessions, &cost}) {
    if (!metric->document()["sum"]["dataPoints"].empty()) metrics.push_back(metric->document());
  }
  const json name{{"key", "service.name"}, {"value", {{"stringValue", "vimbrel"}}}};
  const json scope{{"scope", {{"name", "vimbrel.usage"}}}, {"metrics", std::move(metrics)}};
  const json resource{{"resource", {{"attributes", json::array({name})}}},
                      {"scopeMetrics", json::array({scope})}};
  return json{{"resourceMetrics", json::array({resource})}}.dump(-1, ' ', false,
                                                                 json::error_handler_t::replace);
}

}  // namespace

std::optional<UsageExportFormat> usageExportFormatFromName(std::string_view name) {
  if (name == "json") return UsageExportFormat::json;
  if (name == "prometheus") return UsageExportFormat::prometheus;
  if (name == "otlp-json") return UsageExportFormat::otlpJson;
  return std::nullopt;
}

std::string exportUsage(UsageStore& store, UsageExportFormat format, Instant now) {
  switch (format) {
    case UsageExportFormat::prometheus:
      return prometheusText(collect(store));
    case UsageExportFormat::otlpJson:
      return otlpText(collect(store), now);
    case UsageExportFormat::json:
      break;
  }
  return store.exportPrivacySafeJSON();
}

}  // namespace vimbrel
