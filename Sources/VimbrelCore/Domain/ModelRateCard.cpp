// SPDX-License-Identifier: Apache-2.0
#include "Domain/ModelRateCard.h"

#include <algorithm>

#include "Support/SaturatingSum.h"

namespace vimbrel {
namespace {

std::string normalised(std::string_view modelId) {
  constexpr std::string_view whiteSpace = " \t\n\v\f\r";
  const auto first = modelId.find_first_not_of(whiteSpace);
  if (first == std::string_view::npos) return {};
  std::string text(modelId.substr(first, modelId.find_last_not_of(whiteSpace) - first + 1));
  for (auto& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

std::vector<ModelRateCard::Row> builtInRows() {
  return {
      // key, {input, output, cache read, cache write, reasoning}, context window
      {"claude-3-5-sonnet-20241022", {3.0, 15.0, 0.3, 3.75, 15.0}, 200'000},
      {"claude-3-5-sonnet", {3.0, 15.0, 0.3, 3.75, 15.0}, 200'000},
      {"claude-3-sonnet", {3.0, 15.0, 0.3, 3.75, 15.0}, 200'000},
      {"claude-3-5-haiku", {0.8, 4.0, 0.08, 1.0, 4.0}, 200'000},
      {"claude-3-opus", {15.0, 75.0, 1.5, 18.75, 75.0}, 200'000},
      {"claude-opus-5", {15.0, 75.0, 1.5, 18.75, 75.0}, 200'000},
      {"gpt-4o", {2.5, 10.0, 1.25, 0.0, 10.0}, 128'000},
      {"gpt-4o-mini", {0.15, 0.6, 0.075, 0.0, 0.6}, 128'000},
      {"o1-preview", {15.0, 60.0, 0.0, 0.0, 60.0}, 128'000},
      {"o1-mini", {3.0, 12.0, 0.0, 0.0, 12.0}, 128'000},
      {"o1", {15.0, 60.0, 0.0, 0.0, 60.0}, 200'000},
      {"o3-mini", {1.1, 4.4, 0.0, 0.0, 4.4}, 200'000},
      {"gpt-5.6-terra", {3.0, 12.0, 1.5, 0.0, 12.0}, 258'400},
      {"gemini-1.5-pro", {3.5, 10.5, 0.875, 0.0, 10.5}, 2'000'000},
      {"gemini-1.5-flash", {0.075, 0.3, 0.01875, 0.0, 0.3}, 1'000'000},
      {"gemini-2.0-flash", {0.1, 0.4, 0.025, 0.0, 0.4}, 1'000'000},
      {"gemini-3.7-flash", {0.1, 0.4, 0.025, 0.0, 0.4}, 1'000'000},
      {"nemotron-3.5-lightning-free", {}, 128'000},
      {"deepseek-v4-flash-free", {}, 128'000},
  };
}

}  // namespace

BilledTokens BilledTokens::fromNestedCounts(std::optional<std::int64_t> inputTokens,
                                            std::optional<std::int64_t> outputTokens,
                                            std::optional<std::int64_t> cachedTokens) {
  BilledTokens tokens{.inputTokens = inputTokens, .outputTokens = outputTokens, .cachedTokens = cachedTokens};
  if (inputTokens) {
    tokens.inputTokens =
        std::max<std::int64_t>(saturatingSubtract(*inputTokens, cachedTokens.value_or(0)), 0);
  }
  return tokens;
}

ModelRateCard::ModelRateCard(std::vector<Row> rows) : rows_(std::move(rows)) {
  // Many keys are parts of others ("gpt-4o" of "gpt-4o-mini"): the longest one names the model best.
  std::ranges::stable_sort(rows_, std::ranges::greater{}, [](const Row& row) { return row.key.size(); });
}

const ModelRateCard& ModelRateCard::builtIn() {
  static const ModelRateCard card(builtInRows());
  return card;
}

ModelRateCard ModelRateCard::with(std::vector<Row> rows) const {
  auto result = rows_;
  for (auto& row : rows) {
    row.key = normalised(row.key);
    if (row.key.empty()) continue;
    const auto known = std::ranges::find(result, row.key, &Row::key);
    if (known == result.end()) {
      result.push_back(std::move(row));
    } else {
      if (!row.contextWindow) row.contextWindow = known->contextWindow;
      *known = std::move(row);
    }
  }
  return ModelRateCard(std::move(result));
}

const ModelRateCard::Row* ModelRateCard::find(std::optional<std::string_view> modelId) const {
  if (!modelId) return nullptr;
  const auto id = normalised(*modelId);
  // An exact key is the longest that the id can contain, so one scan does both.
  for (const auto& row : rows_) {
    if (id.find(row.key) != std::string::npos) return &row;
  }
  return nullptr;
}

double ModelRateCard::Row::price(const BilledTokens& tokens) const {
  const auto millions = [](std::optional<std::int64_t> count) {
    return static_cast<double>(count.value_or(0)) / 1'000'000.0;
  };
  double cost = millions(tokens.inputTokens) * rate.inputPerMillionUSD +
                millions(tokens.outputTokens) * rate.outputPerMillionUSD +
                millions(tokens.cachedTokens) * rate.cacheReadPerMillionUSD +
                millions(tokens.cacheWriteTokens) * rate.cacheWritePerMillionUSD +
                millions(tokens.reasoningTokens) * rate.reasoningPerMillionUSD;
  if (tokens.oneHourCacheWriteTokens) {
    constexpr double oneHourFactor = 2;  // of the input price, by the vendor's price list
    cost += millions(tokens.oneHourCacheWriteTokens) * rate.inputPerMillionUSD * oneHourFactor;
  }
  return cost;
}

std::optional<double> ModelRateCard::price(std::optional<std::string_view> modelId,
                                           const BilledTokens& tokens) const {
  const auto* row = find(modelId);
  return row == nullptr ? std::nullopt : std::optional(row->price(tokens));
}

std::optional<double> ModelRateCard::estimateCost(std::optional<std::string_view> modelId,
                                                  std::optional<std::int64_t> inputTokens,
                                                  std::optional<std::int64_t> outputTokens,
                                                  std::optional<std::int64_t> cachedTokens,
                                                  std::optional<std::int64_t> reasoningTokens,
                                                  std::optional<std::int64_t> cacheWriteTokens) {
  return builtIn().price(modelId, {.inputTokens = inputTokens,
                                   .outputTokens = outputTokens,
                                   .cachedTokens = cachedTokens,
                                   .reasoningTokens = reasoningTokens,
                                   .cacheWriteTokens = cacheWriteTokens});
}

std::optional<std::int64_t> ModelRateCard::contextWindow(std::optional<std::string_view> modelId) {
  const auto* row = builtIn().find(modelId);
  return row == nullptr ? std::nullopt : row->contextWindow;
}

}  // namespace vimbrel
