// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStoreFormat.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstring>

#include "Support/JsonWriter.h"

namespace vimbrel::usageStoreFormat {
namespace {

// ---- Writing

/// Writes a record's parts one behind the other, into room for all of them that was made before: the store is
/// rewritten whole, and this is where the time goes.
class RecordWriter {
 public:
  explicit RecordWriter(char* cursor) : cursor_(cursor) {}

  [[nodiscard]] char* end() const { return cursor_; }
  void literal(std::string_view text) {
    std::memcpy(cursor_, text.data(), text.size());
    cursor_ += text.size();
  }
  /// As a JSON string; takes up to `roomFor(text)` bytes.
  void text(std::string_view text) {
    *cursor_++ = '"';
    content(text);
    *cursor_++ = '"';
  }
  /// As a part of a JSON string.
  void content(std::string_view text) {
    if (plainJsonPrefix(text) == text.size()) return literal(text);
    std::string escaped;
    appendJsonString(escaped, text);
    literal(std::string_view(escaped).substr(1, escaped.size() - 2));
  }
  void integer(std::string_view prefix, std::int64_t value) {
    literal(prefix);
    cursor_ = std::to_chars(cursor_, cursor_ + 24, value).ptr;
  }
  void number(std::string_view prefix, double value) {
    literal(prefix);
    cursor_ = appendDouble(cursor_, value);
  }

 private:
  /// The shortest text that reads back as the same number. Times have at most milliseconds as a rule: those
  /// are found without the general search.
  static char* appendDouble(char* cursor, double value) {
    const double thousandths = value * 1000;
    if (std::fabs(thousandths) < 1e15) {
      const auto whole = static_cast<std::int64_t>(std::llround(thousandths));
      if (static_cast<double>(whole) / 1000 == value) {
        if (whole < 0) *cursor++ = '-';
        const auto magnitude = static_cast<std::uint64_t>(whole < 0 ? -whole : whole);
        cursor = std::to_chars(cursor, cursor + 24, magnitude / 1000).ptr;
        auto fraction = magnitude % 1000;
        if (fraction == 0) return cursor;
        *cursor++ = '.';
        for (std::uint64_t digit = 100; fraction != 0; digit /= 10) {
          *cursor++ = static_cast<char>('0' + fraction / digit);
          fraction %= digit;
        }
        return cursor;
      }
    }
    return std::to_chars(cursor, cursor + 32, value).ptr;
  }

  char* cursor_;
};

/// The most that all keys, numbers and punctuation of one record take.
constexpr std::size_t fixedRoom = 1024;
/// The most that a text takes: every byte as a six-character escape, and the quotes.
constexpr std::size_t roomFor(std::string_view text) { return text.size() * 6 + 2; }

struct QuotedTexts {
  std::string_view session;
  std::optional<std::string_view> model;
  std::string_view source;
};

std::size_t roomFor(const UsageEventView& event, const QuotedTexts& texts) {
  return fixedRoom + roomFor(event.id) + roomFor(event.turnId.value_or(std::string_view{})) +
         texts.session.size() + texts.model.value_or(std::string_view{}).size() + texts.source.size();
}

char* writeEvent(char* cursor, const UsageEventView& event, const QuotedTexts& texts) {
  RecordWriter record(cursor);
  record.literal("{\"id\":");
  record.text(event.id);
  record.literal(",\"agentType\":\"");
  record.literal(rawValue(event.agentType));
  record.literal("\",\"sessionId\":");
  record.literal(texts.session);
  if (event.turnId) {
    record.literal(",\"turnId\":");
    record.text(*event.turnId);
  }
  if (texts.model) {
    record.literal(",\"modelId\":");
    record.literal(*texts.model);
  }
  if (event.inputTokens) record.integer(",\"inputTokens\":", *event.inputTokens);
  if (event.outputTokens) record.integer(",\"outputTokens\":", *event.outputTokens);
  if (event.cachedTokens) record.integer(",\"cachedTokens\":", *event.cachedTokens);
  if (event.cacheWriteTokens) record.integer(",\"cacheWriteTokens\":", *event.cacheWriteTokens);
  if (event.reasoningTokens) record.integer(",\"reasoningTokens\":", *event.reasoningTokens);
  if (event.totalTokens) record.integer(",\"totalTokens\":", *event.totalTokens);
  if (event.contextWindow) record.integer(",\"contextWindow\":", *event.contextWindow);
  if (event.costEstimateUSD) record.number(",\"costEstimateUSD\":", *event.costEstimateUSD);
  if (event.quotaRemainingPercent) record.number(",\"quotaRemainingPercent\":", *event.quotaRemainingPercent);
  record.number(",\"timestamp\":", referenceSeconds(event.timestamp));
  record.literal(",\"source\":");
  record.literal(texts.source);
  record.literal("}");
  return record.end();
}

char* writeSession(char* cursor, const SessionUsageRecord& session) {
  RecordWriter record(cursor);
  record.literal("{\"id\":");
  record.text(session.id);
  record.literal(",\"agentType\":\"");
  record.literal(rawValue(session.agentType));
  record.literal("\"");
  if (session.modelId) {
    record.literal(",\"modelId\":");
    record.text(*session.modelId);
  }
  record.number(",\"startedAt\":", referenceSeconds(session.startedAt));
  record.number(",\"lastActiveAt\":", referenceSeconds(session.lastActiveAt));
  record.number(",\"durationSeconds\":", session.durationSeconds);
  record.integer(",\"totalTokens\":", session.totalTokens);
  record.integer(",\"inputTokens\":", session.inputTokens);
  record.integer(",\"outputTokens\":", session.outputTokens);
  record.integer(",\"cachedTokens\":", session.cachedTokens);
  record.integer(",\"cacheWriteTokens\":", session.cacheWriteTokens);
  record.integer(",\"reasoningTokens\":", session.reasoningTokens);
  if (session.estimatedCostUSD) record.number(",\"estimatedCostUSD\":", *session.estimatedCostUSD);
  if (session.contextWindow) record.integer(",\"contextWindow\":", *session.contextWindow);
  if (session.quotaRemainingPercent) {
    record.number(",\"quotaRemainingPercent\":", *session.quotaRemainingPercent);
  }
  record.literal("}");
  return record.end();
}

/// The deduplication key of an event with a turn, put together from parts that are quoted already.
char* writeTurnKey(char* cursor, AgentType agent, std::string_view quotedSession, std::string_view turn) {
  RecordWriter record(cursor);
  record.literal("\"");
  record.literal(rawValue(agent));
  record.literal("_");
  record.literal(quotedSession.substr(1, quotedSession.size() - 2));
  record.literal("_");
  record.content(turn);
  record.literal("\"");
  return record.end();
}

// ---- Reading

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

void write(OutputBuffer& output, const UsageStoreContents& contents) {
  const auto& events = contents.events;
  const auto& texts = events.texts();
  UsageEventTable::Scratch scratch;
  output.append("{\"schemaVersion\":" + std::to_string(schemaVersion) + ",\"events\":[");
  for (UsageEventTable::Row row = 0; row < events.size(); ++row) {
    if (row != 0) output.append(",");
    const auto model = events.modelNumber(row);
    const auto event = events.view(row, scratch);
    const QuotedTexts quoted{texts.quoted(events.sessionNumber(row)),
                             model ? std::optional<std::string_view>(texts.quoted(*model)) : std::nullopt,
                             texts.quoted(events.sourceNumber(row))};
    output.commit(writeEvent(output.reserve(roomFor(event, quoted)), event, quoted));
  }
  output.append("],\"sessions\":{");
  const char* separator = "";
  for (const auto& [id, session] : contents.sessions) {
    output.append(separator);
    separator = ",";
    appendJsonString(output, id);
    output.append(":");
    output.commit(writeSession(
        output.reserve(fixedRoom + roomFor(session.id) + roomFor(session.modelId.value_or(std::string{}))),
        session));
  }
  output.append("},\"seenKeys\":[");
  separator = "";
  std::string key;
  for (UsageEventTable::Row row = 0; row < events.size(); ++row) {
    output.append(separator);
    separator = ",";
    const auto turn = events.turn(row);
    if (!turn.empty()) {
      const std::string_view session = texts.quoted(events.sessionNumber(row));
      output.commit(writeTurnKey(output.reserve(fixedRoom + session.size() + roomFor(turn)),
                                 events.agent(row), session, turn));
    } else {
      key.clear();
      events.view(row, scratch).appendDeduplicationKey(key);
      appendJsonString(output, key);
    }
  }
  for (const auto extra : events.keysWithoutEvent()) {
    output.append(separator);
    separator = ",";
    appendJsonString(output, extra);
  }
  output.append("]}");
}

std::expected<Loaded, std::string> read(JsonPullReader& reader, std::size_t documentBytes) {
  Loaded loaded;
  constexpr std::size_t bytesOfAnEvent = 480;  // with its key, as the log readers of this program write them
  loaded.contents.events.reserve(documentBytes / bytesOfAnEvent);
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
      if (!readEvents(reader, loaded.contents.events)) problem = "events";
    } else if (name == "sessions" && !hasSessions) {
      hasSessions = true;
      if (!readSessions(reader, loaded.contents.sessions)) problem = "sessions";
    } else if (name == "seenKeys" && !hasKeys) {
      hasKeys = true;
      if (!readKeys(reader, loaded.contents.events)) problem = "seenKeys";
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

void appendJournalLine(std::string& text, const UsageEventView& event) {
  std::string session, model, source;
  appendJsonString(session, event.sessionId);
  if (event.modelId) appendJsonString(model, *event.modelId);
  appendJsonString(source, event.source);
  const QuotedTexts quoted{session, event.modelId ? std::optional<std::string_view>(model) : std::nullopt,
                           source};
  const auto before = text.size();
  text.resize(before + roomFor(event, quoted));
  const char* end = writeEvent(text.data() + before, event, quoted);
  text.resize(static_cast<std::size_t>(end - text.data()));
  text += '\n';
}

std::optional<UsageEvent> readJournalLine(std::string_view line) {
  JsonPullReader reader(line);
  EventFields event;
  if (!readEvent(reader, event) || !reader.atEnd()) return std::nullopt;
  return event.view.toEvent();
}

}  // namespace vimbrel::usageStoreFormat
