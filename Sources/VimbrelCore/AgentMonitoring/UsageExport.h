// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "AgentMonitoring/UsageStore/UsageStore.h"

namespace vimbrel {

/// How usage leaves the machine: our own document, the text that Prometheus scrapes
/// (https://prometheus.io/docs/instrumenting/exposition_formats/), or an OpenTelemetry metrics request in
/// JSON (https://opentelemetry.io/docs/specs/otlp/#json-protobuf-encoding).
enum class UsageExportFormat : std::uint8_t { json, prometheus, otlpJson };

/// "json", "prometheus" or "otlp-json".
[[nodiscard]] std::optional<UsageExportFormat> usageExportFormatFromName(std::string_view name);

/// Models of one agent that are told apart; the smallest of more go under "other", because a model's name is
/// whatever stands in a log.
inline constexpr std::size_t maximumExportedModels = 50;

/// Totals by agent and model over everything that is stored: tokens by kind, turns, sessions, estimated cost.
/// No session, project, turn or single time is in it. The two foreign formats hold counters that only grow
/// until the store is reset; `now` is the time of the OpenTelemetry points.
[[nodiscard]] std::string exportUsage(UsageStore& store, UsageExportFormat format, Instant now);

}  // namespace vimbrel
