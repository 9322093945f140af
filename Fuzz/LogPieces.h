// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "AgentMonitoring/UsageProviders/JsonLines.h"
#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"
#include "Domain/UsageEvent.h"

namespace vimbrel {

/// What a parser made of a log, comparable: random ids are left out.
inline std::string describe(UsageEvent event) {
  event.id = "id";
  std::string text;
  usageStoreFormat::appendJournalLine(text, event.view());
  return text;
}

/// Takes one line, adds what it makes to `events`, and says whether the line is complete.
using TakeLine = std::function<bool(const JsonLinesReader::Line&, std::vector<std::string>& events)>;

/// Reads a log as its agent writes it, seen at several lengths while it grows. Absent when one of these
/// lengths ends in a line that is complete but goes on: such a log may mean two things.
inline std::optional<std::vector<std::string>> readGrowing(std::string_view log, std::size_t step,
                                                           const TakeLine& take) {
  std::vector<std::string> events;
  JsonLinesPosition position;
  bool isAmbiguous = false;
  for (std::size_t seen = std::min(step, log.size());; seen = std::min(seen + step, log.size())) {
    JsonLinesReader reader;
    std::size_t at = position.offset;
    const auto next = [&](char* memory, std::size_t room) -> long {
      // Pieces of odd sizes, so that lines straddle them.
      const auto count = std::min({room, seen - at, std::size_t{31}});
      log.copy(memory, count, at);
      at += count;
      return static_cast<long>(count);
    };
    const auto before = position;
    if (!reader.feed(next, position, [&](const JsonLinesReader::Line& line) {
          const bool isComplete = take(line, events);
          isAmbiguous |= !line.isTerminated && isComplete && seen < log.size() && log[seen] != '\n';
          return isComplete;
        })) {
      std::abort();
    }
    if (position.offset < before.offset || position.offset > seen) std::abort();
    if (seen == log.size()) break;
  }
  if (isAmbiguous) return std::nullopt;
  return events;
}

}  // namespace vimbrel
