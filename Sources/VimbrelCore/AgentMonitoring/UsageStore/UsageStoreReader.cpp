// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"

#include <array>

namespace vimbrel::usageStoreFormat {
namespace {

/// Texts are copied out of the reader's buffer, which moves on, into strings that are used again and again.
struct EventFields {
  UsageEventView view;
  std::string id, session, turn, model, source;
};

bool readText(JsonPullReader& reader, std::string& target) {
  std::string_view text;
  if (!reader.string(text)) return false;
  target.assign(text);
  return true;
}

bool readInteger(JsonPullReader& reader, std::int64_t& target) {
  JsonPullReader::Number number;
  if (!reader.number(number) || !number.integer) return false;
  target = *number.integer;
  return true;
}

bool readDouble(JsonPullReader& reader, double& target) {
  JsonPullReader::Number number;
  if (!reader.number(number)) return false;
  target = number.value;
  return true;
}

bool readInstant(JsonPullReader& reader, Instant& target) {
  double seconds = 0;
  if (!readDouble(reader, seconds)) return false;
  target = instantFromReferenceSeconds(seconds);
  return true;
}

bool readOptional(JsonPullReader& reader, std::optional<std::int64_t>& target) {
  if (reader.takeNull()) return !reader.failed();
  return readInteger(reader, target.emplace());
}

bool readOptional(JsonPullReader& reader, std::optional<double>& target) {
  if (reader.takeNull()) return !reader.failed();
  return readDouble(reader, target.emplace());
}

bool readAgent(JsonPullReader& reader, AgentType& target) {
  std::string_view text;
  if (!reader.string(text)) return false;
  const auto agent = agentTypeFromRawValue(text);
  target = agent.value_or(AgentType::custom);
  return agent.has_value();
}

constexpr std::array<std::string_view, 16> eventKeys{"id",
                                                     "agentType",
                                                     "sessionId",
                                                     "turnId",
                                                     "modelId",
                                                     "inputTokens",
                                                     "outputTokens",
                                                     "cachedTokens",
                                                     "cacheWriteTokens",
                                                     "reasoningTokens",
                                                     "totalTokens",
                                                     "contextWindow",
                                                     "costEstimateUSD",
                                                     "quotaRemainingPercent",
                                                     "timestamp",
                                                     "source"};
constexpr unsigned requiredEventKeys = 1U << 0 | 1U << 1 | 1U << 2 | 1U << 14 | 1U << 15;

/// The key's position; the search starts where the previous one ended, because writers keep their order.
template <std::size_t Count>
std::size_t positionOf(const std::array<std::string_view, Count>& keys, std::string_view name,
                       std::size_t& next) {
  for (std::size_t i = 0; i < Count; ++i) {
    const auto position = (next + i) % Count;
    if (keys[position] == name) {
      next = position + 1;
      return position;
    }
  }
  return Count;
}

bool readEvent(JsonPullReader& reader, EventFields& event) {
  auto& view = event.view = {};
  if (!reader.beginObject()) return false;
  unsigned seen = 0;
  std::size_t next = 0;
  std::string_view name;
  const auto optionalText = [&](std::string& text, std::optional<std::string_view>& target) {
    if (reader.takeNull()) return !reader.failed();
    if (!readText(reader, text)) return false;
    target = text;
    return true;
  };
  while (reader.nextMember(name)) {
    const auto position = positionOf(eventKeys, name, next);
    bool isRead = false;
    switch (position) {
      case 0:
        isRead = readText(reader, event.id);
        break;
      case 1:
        isRead = readAgent(reader, view.agentType);
        break;
      case 2:
        isRead = readText(reader, event.session);
        break;
      case 3:
        isRead = optionalText(event.turn, view.turnId);
        break;
      case 4:
        isRead = optionalText(event.model, view.modelId);
        break;
      case 5:
        isRead = readOptional(reader, view.inputTokens);
        break;
      case 6:
        isRead = readOptional(reader, view.outputTokens);
        break;
      case 7:
        isRead = readOptional(reader, view.cachedTokens);
        break;
      case 8:
        isRead = readOptional(reader, view.cacheWriteTokens);
        break;
      case 9:
        isRead = readOptional(reader, view.reasoningTokens);
        break;
      case 10:
        isRead = readOptional(reader, view.totalTokens);
        break;
      case 11:
        isRead = readOptional(reader, view.contextWindow);
        break;
      case 12:
        isRead = readOptional(reader, view.costEstimateUSD);
        break;
      case 13:
        isRead = readOptional(reader, view.quotaRemainingPercent);
        break;
      case 14:
        isRead = readInstant(reader, view.timestamp);
        break;
      case 15:
        isRead = readText(reader, event.source);
        break;
      default:
        isRead = reader.skipValue();
    }
    if (!isRead) return false;
    seen |= 1U << position;
  }
  view.id = event.id;
  view.sessionId = event.session;
  view.source = event.source;
  return !reader.failed() && (seen & requiredEventKeys) == requiredEventKeys;
}

constexpr std::array<std::string_view, 15> sessionKeys{"id",
                                                       "agentType",
                                                       "modelId",
                                                       "startedAt",
                                                       "lastActiveAt",
                                                       "durationSeconds",
                                                       "totalTokens",
                                                       "inputTokens",
                                                       "outputTokens",
                                                       "cachedTokens",
                                                       "cacheWriteTokens",
                                                       "reasoningTokens",
                                                       "estimatedCostUSD",
                                                       "contextWindow",
                                                       "quotaRemainingPercent"};
constexpr unsigned requiredSessionKeys = 0xFFBU;  // the first twelve but the model

bool readSession(JsonPullReader& reader, SessionUsageRecord& session) {
  if (!reader.beginObject()) return false;
  unsigned seen = 0;
  std::size_t next = 0;
  std::string_view name;
  while (reader.nextMember(name)) {
    const auto position = positionOf(sessionKeys, name, next);
    bool isRead = false;
    switch (position) {
      case 0:
        isRead = readText(reader, session.id);
        break;
      case 1:
        isRead = readAgent(reader, session.agentType);
        break;
      case 2:
        isRead = reader.takeNull() ? !reader.failed() : readText(reader, session.modelId.emplace());
        break;
      case 3:
        isRead = readInstant(reader, session.startedAt);
        break;
      case 4:
        isRead = readInstant(reader, session.lastActiveAt);
        break;
      case 5:
        isRead = readDouble(reader, session.durationSeconds);
        break;
      case 6:
        isRead = readInteger(reader, session.totalTokens);
        break;
      case 7:
        isRead = readInteger(reader, session.inputTokens);
        break;
      case 8:
        isRead = readInteger(reader, session.outputTokens);
        break;
      case 9:
        isRead = readInteger(reader, session.cachedTokens);
        break;
      case 10:
        isRead = readInteger(reader, session.cacheWriteTokens);
        break;
      case 11:
        isRead = readInteger(reader, session.reasoningTokens);
        break;
      case 12:
        isRead = readOptional(reader, session.estimatedCostUSD);
        break;
      case 13:
        isRead = readOptional(reader, session.contextWindow);
        break;
      case 14:
        isRead = readOptional(reader, session.quotaRemainingPercent);
        break;
      default:
        isRead = reader.skipValue();
    }
    if (!isRead) return false;
    seen |= 1U << position;
  }
  return !reader.failed() && (seen & requiredSessionKeys) == requiredSessionKeys;
}

bool readEvents(JsonPullReader& reader, UsageEventTable& events) {
  if (!reader.beginArray()) return false;
  EventFields event;
  while (reader.nextElement()) {
    if (!readEvent(reader, event) || events.size() >= UsageEventTable::maximumEvents) return false;
    events.append(event.view);
  }
  return !reader.failed();
}

bool readSessions(JsonPullReader& reader, std::unordered_map<std::string, SessionUsageRecord>& sessions) {
  if (!reader.beginObject()) return false;
  std::string_view name;
  while (reader.nextMember(name)) {
    if (!readSession(reader, sessions[std::string(name)])) return false;
  }
  return !reader.failed();
}

bool readKeys(JsonPullReader& reader, UsageEventTable& events) {
  if (!reader.beginArray()) return false;
  std::string_view key;
  // Keys mostly stand in the order of the events: then they need no search.
  UsageEventTable::Row row = 0;
  while (reader.nextElement()) {
    if (!reader.string(key)) return false;
    if (row < events.size() && events.hasTurnKey(row, key)) {
      ++row;
    } else {
      events.addKey(key);
    }
  }
  return !reader.failed();
}

}  // namespace

std::expected<Loaded, std::string> read(JsonPullReader& reader, std::size_t documentBytes) {
  Loaded loaded;
  constexpr std::size_t bytesOfAnEvent = 480;  // with its key, as the log readers of this program write them
  loaded.ledger.events.reserve(documentBytes / bytesOfAnEvent);
  bool hasEvents = false;
  bool hasSessions = false;
  bool hasKeys = false;
  std::string_view name;
  if (!reader.beginObject()) return std::unexpected("not a JSON object");
  while (reader.nextMember(name)) {
    const char* problem = nullptr;
    if (name == "schemaVersion") {
      JsonPullReader::Number version;
      // A version that is no whole number makes it a document of the time before versions.
      if (reader.isNumber() ? !reader.number(version) : !reader.skipValue()) problem = "schemaVersion";
      loaded.schemaVersion = version.integer;
    } else if (name == "events" && !hasEvents) {
      hasEvents = true;
      if (!readEvents(reader, loaded.ledger.events)) problem = "events";
    } else if (name == "sessions" && !hasSessions) {
      hasSessions = true;
      if (!readSessions(reader, loaded.ledger.sessions)) problem = "sessions";
    } else if (name == "seenKeys" && !hasKeys) {
      hasKeys = true;
      if (!readKeys(reader, loaded.ledger.events)) problem = "seenKeys";
    } else if (name == "forgottenBefore" && reader.isNumber()) {
      if (!readInstant(reader, loaded.ledger.forgottenBefore.emplace())) problem = "forgottenBefore";
    } else if (!reader.skipValue()) {
      problem = "an unknown member";
    }
    if (problem != nullptr) return std::unexpected(std::string("cannot read ") + problem);
  }
  if (reader.failed() || !reader.atEnd()) return std::unexpected("not one JSON document");
  if (!hasEvents || !hasSessions || !hasKeys)
    return std::unexpected("events, sessions or seenKeys are missing");
  return loaded;
}

std::optional<UsageEvent> readJournalLine(std::string_view line) {
  JsonPullReader reader(line);
  EventFields event;
  if (!readEvent(reader, event) || !reader.atEnd()) return std::nullopt;
  return event.view.toEvent();
}

}  // namespace vimbrel::usageStoreFormat
