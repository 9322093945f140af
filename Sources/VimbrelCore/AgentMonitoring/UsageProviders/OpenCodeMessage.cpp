// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageProviders/LenientJson.h"
#include "AgentMonitoring/UsageProviders/OpenCodeDatabase.h"
#include "Support/SaturatingSum.h"
#include "Support/Uuid.h"

namespace vimbrel {
namespace {

constexpr std::string_view defaultModel = "nemotron-3.5-lightning-free";
constexpr std::int64_t defaultContextWindow = 128000;
// How OpenCode calls the error of a message that its user stopped: "MessageAbortedError".
constexpr std::string_view abortMark = "Abort";

}  // namespace

struct OpenCodeMessageParser::Json {
  simdjson::dom::parser parser;
};

OpenCodeMessageParser::OpenCodeMessageParser(const ModelRateCard& card)
    : card_(card), json_(std::make_unique<Json>()) {}
OpenCodeMessageParser::~OpenCodeMessageParser() = default;

std::optional<OpenCodeUsage> OpenCodeMessageParser::parse(const OpenCodeRow& row, Instant now) {
  lenient::Element root;
  // The parser copies even from where nothing is.
  if (row.data.empty() ||
      json_->parser.parse(row.data.data(), row.data.size()).get(root) != simdjson::SUCCESS)
    return std::nullopt;
  const auto tokens = lenient::object(root, "tokens");
  if (!tokens) return std::nullopt;

  OpenCodeUsage usage;
  auto& event = usage.event;
  event.inputTokens = lenient::integer(*tokens, "input");
  event.outputTokens = lenient::integer(*tokens, "output");
  event.reasoningTokens = lenient::integer(*tokens, "reasoning");
  if (const auto cache = lenient::object(*tokens, "cache")) {
    event.cachedTokens = lenient::integer(*cache, "read");
    event.cacheWriteTokens = lenient::integer(*cache, "write");
  }
  const auto sum =
      saturatingAdd(saturatingAdd(event.inputTokens.value_or(0), event.outputTokens.value_or(0)),
                    saturatingAdd(event.reasoningTokens.value_or(0), event.cachedTokens.value_or(0)));
  const auto total =
      lenient::integer(*tokens, "total").value_or(saturatingAdd(sum, event.cacheWriteTokens.value_or(0)));
  if (total < 1) return std::nullopt;
  event.totalTokens = total;

  event.modelId = lenient::string(root, "modelID");
  if (!event.modelId) event.modelId = lenient::string(root, "model");
  if (!event.modelId) event.modelId = std::string(defaultModel);

  const auto recorded = lenient::number(root, "cost");
  usage.isCostEstimated = !(recorded && *recorded > 0);
  event.costEstimateUSD =
      usage.isCostEstimated
          ? card_.price(event.modelId, BilledTokens{.inputTokens = event.inputTokens,
                                                    .outputTokens = event.outputTokens,
                                                    .cachedTokens = event.cachedTokens,
                                                    .reasoningTokens = event.reasoningTokens,
                                                    .cacheWriteTokens = event.cacheWriteTokens})
          : recorded;
  const auto* priced = card_.find(event.modelId);
  usage.contextWindow =
      priced != nullptr ? priced->contextWindow.value_or(defaultContextWindow) : defaultContextWindow;

  event.id = randomUuid();
  event.agentType = AgentType::opencode;
  event.sessionId = row.sessionId;
  event.turnId = std::string(row.id);
  event.contextWindow = usage.contextWindow;
  event.timestamp =
      row.timeCreated < 1 ? now : instantFromUnixSeconds(static_cast<double>(row.timeCreated) / 1000);
  event.source = "opencode-db";
  return usage;
}

std::optional<TurnInterruption> OpenCodeMessageParser::interruption(const OpenCodeRow& row) {
  if (row.data.find(abortMark) == std::string_view::npos) return std::nullopt;
  lenient::Element root;
  if (json_->parser.parse(row.data.data(), row.data.size()).get(root) != simdjson::SUCCESS)
    return std::nullopt;
  const auto error = lenient::object(root, "error");
  const auto name = error ? lenient::text(*error, "name") : std::nullopt;
  if (!name || name->find(abortMark) == std::string_view::npos) return std::nullopt;
  const auto time = lenient::object(root, "time");
  // The message began long before: without its end there is nothing to compare with what was heard since.
  const auto completed = time ? lenient::integer(*time, "completed") : std::nullopt;
  if (!completed || *completed < 1) return std::nullopt;
  const auto place = lenient::object(root, "path");
  return TurnInterruption{AgentType::opencode, std::string(row.sessionId),
                          place ? lenient::string(*place, "cwd") : std::nullopt,
                          instantFromUnixSeconds(static_cast<double>(*completed) / 1000)};
}

}  // namespace vimbrel
