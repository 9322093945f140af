// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vimbrel {

/// The tokens of one usage, each in exactly one field.
struct BilledTokens {
  std::optional<std::int64_t> inputTokens{};  ///< at the full input price: without cache reads
  std::optional<std::int64_t> outputTokens{};
  std::optional<std::int64_t> cachedTokens{};  ///< read from the prompt cache
  std::optional<std::int64_t> reasoningTokens{};
  std::optional<std::int64_t> cacheWriteTokens{};  ///< written to the five-minute prompt cache
  /// Written to the one-hour prompt cache, which costs twice the input price.
  std::optional<std::int64_t> oneHourCacheWriteTokens{};

  /// From a source that counts cached tokens inside input and reasoning inside output, as Codex does.
  [[nodiscard]] static BilledTokens fromNestedCounts(std::optional<std::int64_t> inputTokens,
                                                     std::optional<std::int64_t> outputTokens,
                                                     std::optional<std::int64_t> cachedTokens);
};

/// Prices and context windows of models. A card never changes; `with` gives another one. The static
/// operations use the built-in card. Any thread.
class ModelRateCard {
 public:
  /// US dollars for a million tokens.
  struct Rate {
    double inputPerMillionUSD = 0;
    double outputPerMillionUSD = 0;
    double cacheReadPerMillionUSD = 0;
    double cacheWritePerMillionUSD = 0;
    double reasoningPerMillionUSD = 0;
    bool operator==(const Rate&) const = default;
  };
  struct Row {
    std::string key;  ///< lower case
    Rate rate;
    std::optional<std::int64_t> contextWindow{};  ///< tokens

    /// US dollars. Absent counts are 0.
    [[nodiscard]] double price(const BilledTokens& tokens) const;
    bool operator==(const Row&) const = default;
  };

  [[nodiscard]] static const ModelRateCard& builtIn();

  /// US dollars by the built-in card; absent for a model without a row. Absent counts are 0.
  [[nodiscard]] static std::optional<double> estimateCost(std::optional<std::string_view> modelId,
                                                          std::optional<std::int64_t> inputTokens,
                                                          std::optional<std::int64_t> outputTokens,
                                                          std::optional<std::int64_t> cachedTokens,
                                                          std::optional<std::int64_t> reasoningTokens,
                                                          std::optional<std::int64_t> cacheWriteTokens);
  /// Tokens by the built-in card; absent for a model without a row.
  [[nodiscard]] static std::optional<std::int64_t> contextWindow(std::optional<std::string_view> modelId);

  /// This card with rows added; a row whose key is known replaces the known one, whose context window it
  /// keeps when it gives none. Keys are normalised as model ids are; rows with an empty key are dropped.
  [[nodiscard]] ModelRateCard with(std::vector<Row> rows) const;

  /// The row of a model: ids are compared in lower case without outer white space; an exact key first, else
  /// the longest key that occurs inside the id. Null for an absent, blank or unknown id.
  [[nodiscard]] const Row* find(std::optional<std::string_view> modelId) const;
  [[nodiscard]] std::optional<double> price(std::optional<std::string_view> modelId,
                                            const BilledTokens& tokens) const;

  /// Longest key first.
  [[nodiscard]] std::span<const Row> rows() const { return rows_; }

 private:
  explicit ModelRateCard(std::vector<Row> rows);
  std::vector<Row> rows_;
};

}  // namespace vimbrel
