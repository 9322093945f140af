// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "Domain/AgentType.h"
#include "Domain/UsageMetrics.h"
#include "Support/Instant.h"
#include "Support/Sentence.h"

namespace vimbrel {

/// A budget is low from this share left downwards, in percent.
inline constexpr double lowBudgetPercent = 20;

/// Whole numbers of tokens for people: "999", "2k", "1.2M", "2M".
[[nodiscard]] std::string formatTokenCompact(std::int64_t count);

/// What is left of a model's context window. Only `create` builds one, so the figures always fit together.
class ContextBudget {
 public:
  /// A window below 1 counts as 1, negative consumption as 0.
  [[nodiscard]] static ContextBudget create(std::int64_t contextWindow, std::int64_t tokensConsumed);

  [[nodiscard]] std::int64_t contextWindow() const { return contextWindow_; }
  [[nodiscard]] std::int64_t tokensConsumed() const { return tokensConsumed_; }
  [[nodiscard]] std::int64_t tokensRemaining() const { return tokensRemaining_; }
  [[nodiscard]] double percentageRemaining() const { return percentageRemaining_; }  ///< 0 to 100
  [[nodiscard]] double percentageUsed() const { return percentageUsed_; }            ///< 0 to 100
  [[nodiscard]] bool isLow() const { return percentageRemaining_ <= lowBudgetPercent; }
  [[nodiscard]] std::string formattedTokensRemaining() const { return formatTokenCompact(tokensRemaining_); }
  [[nodiscard]] std::string formattedTokensConsumed() const { return formatTokenCompact(tokensConsumed_); }
  [[nodiscard]] std::string formattedContextWindow() const { return formatTokenCompact(contextWindow_); }
  bool operator==(const ContextBudget&) const = default;

 private:
  ContextBudget() = default;
  std::int64_t contextWindow_ = 1;
  std::int64_t tokensConsumed_ = 0;
  std::int64_t tokensRemaining_ = 1;
  double percentageRemaining_ = 100;
  double percentageUsed_ = 0;
};

/// What is left of an account's quota.
struct AccountQuotaBudget {
  double percentageRemaining = 0;  ///< 0 to 100; `create` limits it
  std::optional<double> usedPercent{};
  std::optional<std::int64_t> windowMinutes{};
  std::optional<Instant> resetsAt{};
  std::optional<std::string> planType{};

  [[nodiscard]] static AccountQuotaBudget create(AccountQuotaBudget fields);
  [[nodiscard]] bool isLow() const { return percentageRemaining <= lowBudgetPercent; }
  /// "45% quota left"
  [[nodiscard]] std::string formattedQuotaRemaining() const;
  bool operator==(const AccountQuotaBudget&) const = default;
};

/// US dollars, measured by the agent or estimated from the rate card.
struct CostBudget {
  double amountUSD = 0;
  bool isEstimated = false;
  /// "$1.23", "<$0.01", followed by " est." for an estimate.
  [[nodiscard]] std::string formattedCost() const;
  bool operator==(const CostBudget&) const = default;
};

/// A measured value with where it came from, or the reason why there is none.
template <typename T>
class BudgetMetric {
 public:
  struct Known {
    T value;
    double confidence = 1;  ///< 0 to 1
    std::string source;
    bool operator==(const Known&) const = default;
  };

  [[nodiscard]] static BudgetMetric known(T value, double confidence, std::string source) {
    return BudgetMetric(Known{std::move(value), confidence, std::move(source)});
  }
  [[nodiscard]] static BudgetMetric unavailable(std::string reason) {
    return BudgetMetric(Unavailable{std::move(reason)});
  }

  [[nodiscard]] bool isAvailable() const { return std::holds_alternative<Known>(state_); }
  /// Null when unavailable.
  [[nodiscard]] const T* value() const { return isAvailable() ? &std::get<Known>(state_).value : nullptr; }
  [[nodiscard]] std::optional<std::string> unavailableReason() const {
    return isAvailable() ? std::nullopt : std::optional(std::get<Unavailable>(state_).reason);
  }
  [[nodiscard]] double confidence() const { return isAvailable() ? std::get<Known>(state_).confidence : 0; }
  [[nodiscard]] std::optional<std::string> source() const {
    return isAvailable() ? std::optional(std::get<Known>(state_).source) : std::nullopt;
  }
  bool operator==(const BudgetMetric&) const = default;

 private:
  struct Unavailable {
    std::string reason;
    bool operator==(const Unavailable&) const = default;
  };
  explicit BudgetMetric(std::variant<Known, Unavailable> state) : state_(std::move(state)) {}
  std::variant<Known, Unavailable> state_;
};

/// In order of urgency.
enum class LowBudgetLevel : std::uint8_t { warning, critical, exhausted };
enum class LowBudgetMetricType : std::uint8_t { context, quota };

[[nodiscard]] std::string_view rawValue(LowBudgetLevel level);
[[nodiscard]] std::string_view rawValue(LowBudgetMetricType type);
/// "Low", "Critically Low", "Exhausted"
[[nodiscard]] std::string_view displayLabel(LowBudgetLevel level);
[[nodiscard]] std::optional<LowBudgetLevel> lowBudgetLevelFromRawValue(std::string_view text);
[[nodiscard]] std::optional<LowBudgetMetricType> lowBudgetMetricTypeFromRawValue(std::string_view text);

struct LowBudgetAlert {
  LowBudgetLevel level = LowBudgetLevel::warning;
  LowBudgetMetricType metricType = LowBudgetMetricType::context;
  double percentageRemaining = 0;  ///< unrounded
  std::string message;             ///< a sentence for people, without a full stop
  bool operator==(const LowBudgetAlert&) const = default;
};

namespace LowBudgetThreshold {

/// The more urgent alert of the two percentages left (0 to 100); on equal levels the quota's.
[[nodiscard]] std::optional<LowBudgetAlert> evaluate(std::optional<double> contextRemainingPercent,
                                                     std::optional<double> quotaRemainingPercent);

}  // namespace LowBudgetThreshold

/// The budget of one agent, as whoever measured it last saw it.
struct ProviderBudgetReport {
  AgentType agentType = AgentType::custom;
  std::optional<std::string> sessionId{};
  std::optional<std::string> modelId{};
  BudgetMetric<ContextBudget> context =
      BudgetMetric<ContextBudget>::unavailable(sentence("Context unavailable"));
  BudgetMetric<AccountQuotaBudget> quota =
      BudgetMetric<AccountQuotaBudget>::unavailable(sentence("Quota unavailable"));
  UsageMetrics sessionUsage{};
  std::optional<CostBudget> cost{};
  std::optional<LowBudgetAlert> lowBudgetAlert{};
  Instant lastUpdated{};
  std::string source;  ///< tag of whoever built the report
  /// When the agent told what the report was built from, where its log knows; never published.
  std::optional<Instant> toldAt{};

  /// How every new report is built: without an alert it gets the one that its context and quota call for.
  [[nodiscard]] static ProviderBudgetReport make(ProviderBudgetReport fields);

  /// Whether what it tells was an hour old when it was built, as of a log that was found and not watched: no
  /// news.
  [[nodiscard]] bool isOldNews() const { return toldAt && lastUpdated - *toldAt >= std::chrono::hours(1); }

  /// "<agent>_<session>", or "<agent>_global".
  [[nodiscard]] std::string id() const;
  /// One line about an agent that is working.
  [[nodiscard]] std::string actionableSummaryLine() const;
  /// One line about an agent that has finished.
  [[nodiscard]] std::string idleSummaryLine() const;
  bool operator==(const ProviderBudgetReport&) const = default;
};

}  // namespace vimbrel
