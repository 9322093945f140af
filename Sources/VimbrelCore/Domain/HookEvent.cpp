// SPDX-License-Identifier: Apache-2.0
#include "Domain/HookEvent.h"

#include <simdjson.h>

#include <algorithm>
#include <utility>

#include "Domain/HookEventWire.h"

namespace vimbrel {
namespace {

namespace dom = simdjson::dom;

// An event is one flat object; what nests deeper is either in an unknown key or an attack.
constexpr std::size_t maximumDepth = 64;

/// The length of the number at the front of `text` if it is one by the grammar of JSON, else 0.
std::size_t numberLength(std::string_view text) {
  std::size_t i = 0;
  const auto digits = [&] {
    const auto start = i;
    while (i < text.size() && text[i] >= '0' && text[i] <= '9') ++i;
    return i - start;
  };
  if (i < text.size() && text[i] == '-') ++i;
  const bool leadingZero = i < text.size() && text[i] == '0';
  const auto whole = digits();
  if (whole == 0 || (leadingZero && whole > 1)) return 0;
  if (i < text.size() && text[i] == '.') {
    ++i;
    if (digits() == 0) return 0;
  }
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    if (digits() == 0) return 0;
  }
  return i;
}

/// Replaces every number that no 64-bit type holds by null. simdjson refuses a whole document for one such
/// number, but a field that cannot be used must not fail the event.
void dropOversizedNumbers(std::string& document) {
  dom::parser parser;
  for (std::size_t i = 0; i < document.size(); ++i) {
    if (document[i] == '"') {
      for (++i; i < document.size() && document[i] != '"'; ++i) {
        if (document[i] == '\\') ++i;
      }
      continue;
    }
    const auto length = numberLength(std::string_view(document).substr(i));
    if (length == 0) continue;
    // The shortest number out of range, "1e309", is longer than "null".
    if (length >= 5 && parser.parse(document.data() + i, length).error() == simdjson::NUMBER_ERROR) {
      document.replace(i, length, std::string("null").append(length - 4, ' '));
    }
    i += length - 1;
  }
}

/// One parser a thread, which keeps its buffers, so that a stream of events does not allocate. What is parsed
/// lives until the thread's next call.
simdjson::simdjson_result<dom::element> parseDocument(std::string_view json) {
  struct BoundedParser : dom::parser {
    BoundedParser() : dom::parser(maximumHookEventBytes) {
      // Without memory the depth stays simdjson's own bound.
      static_cast<void>(allocate(maximumHookEventBytes, maximumDepth) == simdjson::SUCCESS);
    }
  };
  if (json.empty()) return simdjson::EMPTY;  // The parser copies even from where nothing is.
  thread_local BoundedParser parser;
  auto document = parser.parse(json.data(), json.size());
  if (document.error() != simdjson::NUMBER_ERROR) return document;
  std::string repaired(json);
  dropOversizedNumbers(repaired);
  return parser.parse(repaired);
}

std::optional<std::int64_t> integerOf(const dom::element& element) {
  if (element.type() != dom::element_type::INT64) return std::nullopt;
  return element.get_int64().value_unsafe();
}

std::optional<std::string> stringOf(const dom::element& element) {
  std::string_view text;
  if (element.get_string().get(text) != simdjson::SUCCESS) return std::nullopt;
  return std::string(text);
}

std::string withoutQuotes(std::string text) {
  std::replace(text.begin(), text.end(), '"', '\'');
  return text;
}

}  // namespace

std::string HookEvent::derivedSessionId(AgentType agent, std::optional<std::int32_t> pid) {
  std::string id;
  appendDerivedSessionId(id, rawValue(agent), pid);
  return id;
}

std::string HookEvent::toJSONData() const {
  const auto seconds = shortestDecimal(unixSeconds(timestamp));
  std::string json;
  appendHookEvent(json, {.schema = schema,
                         .agent = rawValue(agent),
                         .sessionId = sessionId,
                         .state = rawValue(state),
                         .timestamp = seconds,
                         .pid = pid,
                         .cwd = cwd,
                         .inputTokens = inputTokens,
                         .outputTokens = outputTokens,
                         .cachedTokens = cachedTokens,
                         .reasoningTokens = reasoningTokens,
                         .model = model,
                         .turnId = turnId});
  return json;
}

std::expected<HookEvent, std::string> HookEvent::parse(std::string_view json, Instant now) {
  if (json.size() > maximumHookEventBytes) return std::unexpected("the document is larger than 65536 bytes");
  const auto document = parseDocument(json);
  if (document.error() != simdjson::SUCCESS) {
    return std::unexpected("not valid JSON: " + withoutQuotes(simdjson::error_message(document.error())));
  }
  dom::object object;
  if (document.value_unsafe().get_object().get(object) != simdjson::SUCCESS) {
    return std::unexpected("the document is not a JSON object");
  }

  HookEvent event;
  event.timestamp = now;
  bool hasAgent = false;
  bool hasState = false;
  std::string_view text;
  for (const auto [key, value] : object) {
    if (key == hookEventKey::agent) {
      hasAgent = value.get_string().get(text) == simdjson::SUCCESS;
      if (hasAgent) event.agent = agentTypeFromLenientText(text);
    } else if (key == hookEventKey::state) {
      hasState = value.get_string().get(text) == simdjson::SUCCESS;
      if (hasState) event.state = agentStateFromLenientText(text);
    } else if (key == hookEventKey::schema) {
      event.schema = integerOf(value).value_or(1);
    } else if (key == hookEventKey::sessionId) {
      event.sessionId = stringOf(value).value_or("");
    } else if (key == hookEventKey::timestamp) {
      double seconds = 0;
      event.timestamp =
          value.get_double().get(seconds) == simdjson::SUCCESS ? instantFromUnixSeconds(seconds) : now;
    } else if (key == hookEventKey::pid) {
      const auto pid = integerOf(value);
      event.pid = pid && std::in_range<std::int32_t>(*pid) ? std::optional(static_cast<std::int32_t>(*pid))
                                                           : std::nullopt;
    } else if (key == hookEventKey::cwd) {
      event.cwd = stringOf(value);
    } else if (key == hookEventKey::inputTokens) {
      event.inputTokens = integerOf(value);
    } else if (key == hookEventKey::outputTokens) {
      event.outputTokens = integerOf(value);
    } else if (key == hookEventKey::cachedTokens) {
      event.cachedTokens = integerOf(value);
    } else if (key == hookEventKey::reasoningTokens) {
      event.reasoningTokens = integerOf(value);
    } else if (key == hookEventKey::model) {
      event.model = stringOf(value);
    } else if (key == hookEventKey::turnId) {
      event.turnId = stringOf(value);
    }
  }
  if (!hasAgent) return std::unexpected("the key agent is missing or not a string");
  if (!hasState) return std::unexpected("the key state is missing or not a string");
  if (event.sessionId.empty()) event.sessionId = derivedSessionId(event.agent, event.pid);
  return event;
}

}  // namespace vimbrel
