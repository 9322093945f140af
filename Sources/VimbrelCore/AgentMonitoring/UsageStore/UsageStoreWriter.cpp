// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "Support/JsonWriter.h"

namespace vimbrel::usageStoreFormat {
namespace {

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
    if (!std::isfinite(value)) {
      // JSON has no such number, and one of them would make the whole file unreadable.
      constexpr double largest = std::numeric_limits<double>::max();
      value = std::isnan(value) ? 0 : std::copysign(largest, value);
    }
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

}  // namespace

void write(OutputBuffer& output, const UsageLedger& ledger) {
  const auto& events = ledger.events;
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
  for (const auto& [id, session] : ledger.sessions) {
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
  output.append("]");
  if (ledger.forgottenBefore) {
    RecordWriter record(output.reserve(fixedRoom));
    record.number(",\"forgottenBefore\":", referenceSeconds(*ledger.forgottenBefore));
    output.commit(record.end());
  }
  output.append("}");
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

}  // namespace vimbrel::usageStoreFormat
