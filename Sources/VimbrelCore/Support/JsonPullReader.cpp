// SPDX-License-Identifier: Apache-2.0
#include "Support/JsonPullReader.h"

#include <charconv>
#include <cstring>

#include "Support/JsonWriter.h"

namespace vimbrel {
namespace {

constexpr std::size_t bufferBytes = 1 << 18;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

void appendUtf8(std::string& text, std::uint32_t code) {
  const auto put = [&](std::uint32_t byte) { text += static_cast<char>(byte); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0U | code >> 6U);
    put(0x80U | (code & 0x3FU));
  } else if (code < 0x10000) {
    put(0xE0U | code >> 12U);
    put(0x80U | (code >> 6U & 0x3FU));
    put(0x80U | (code & 0x3FU));
  } else {
    put(0xF0U | code >> 18U);
    put(0x80U | (code >> 12U & 0x3FU));
    put(0x80U | (code >> 6U & 0x3FU));
    put(0x80U | (code & 0x3FU));
  }
}

}  // namespace

JsonPullReader::JsonPullReader(Source source) : source_(std::move(source)) {
  buffer_.resize(bufferBytes);
  cursor_ = end_ = buffer_.data();
}

JsonPullReader::JsonPullReader(std::string_view document)
    : cursor_(document.data()), end_(document.data() + document.size()), sourceEnded_(true) {}

bool JsonPullReader::fail() {
  failed_ = true;
  cursor_ = end_;
  sourceEnded_ = true;
  return false;
}

/// Brings more bytes in behind those from `keep` on, which move to the front of the buffer.
bool JsonPullReader::refill(const char*& keep) {
  if (sourceEnded_) return false;
  const auto kept = static_cast<std::size_t>(end_ - keep);
  const auto offset = static_cast<std::size_t>(cursor_ - keep);
  if (kept > maximumTokenBytes) return fail();
  std::memmove(buffer_.data(), keep, kept);
  if (kept == buffer_.size()) buffer_.resize(buffer_.size() * 2);
  const auto count = source_(buffer_.data() + kept, buffer_.size() - kept);
  keep = buffer_.data();
  cursor_ = keep + offset;
  end_ = keep + kept;
  if (count < 0) return fail();
  if (count == 0) {
    sourceEnded_ = true;
    return false;
  }
  end_ += count;
  return true;
}

/// The next byte that is not white space, after the colon that may be due; NUL at the end.
char JsonPullReader::peekPastSpace() {
  for (;;) {
    while (cursor_ != end_) {
      const char c = *cursor_;
      if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
        ++cursor_;
      } else if (colonPending_) {
        colonPending_ = false;
        if (c != ':') {
          fail();
          return '\0';
        }
        ++cursor_;
      } else {
        return c;
      }
    }
    const char* keep = cursor_;
    if (!refill(keep)) return '\0';
  }
}

bool JsonPullReader::expect(char character) {
  if (peek() != character || cursor_ == end_) return fail();
  ++cursor_;
  return true;
}

bool JsonPullReader::expectWord(std::string_view word) {
  (void)peek();
  for (const char c : word) {
    const char* keep = cursor_;
    if (cursor_ == end_ && !refill(keep)) return fail();
    if (*cursor_++ != c) return fail();
  }
  return true;
}

bool JsonPullReader::beginObject() { return expect('{') && (first_ = true); }
bool JsonPullReader::beginArray() { return expect('[') && (first_ = true); }

bool JsonPullReader::nextMember(std::string_view& name) {
  const char next = peek();
  if (next == '}') {
    ++cursor_;
    first_ = false;
    return false;
  }
  if (!first_) {
    if (next != ',') return fail();
    ++cursor_;
  }
  first_ = false;
  if (!string(name)) return false;
  colonPending_ = true;
  return true;
}

bool JsonPullReader::nextElement() {
  if (peek() == ']') {
    ++cursor_;
    first_ = false;
    return false;
  }
  if (failed_) return false;
  if (!first_) {
    if (!expect(',')) return false;
    if (peek() == ']') return fail();
  }
  first_ = false;
  return cursor_ != end_ || fail();
}

bool JsonPullReader::readHex4(const char*& start, std::uint32_t& code) {
  code = 0;
  for (int i = 0; i < 4; ++i) {
    if (cursor_ == end_ && !refill(start)) return fail();
    const char c = *cursor_++;
    const char lower = static_cast<char>(c | 0x20);
    if (isDigit(c)) {
      code = code * 16 + static_cast<std::uint32_t>(c - '0');
    } else if (lower >= 'a' && lower <= 'f') {
      code = code * 16 + static_cast<std::uint32_t>(lower - 'a' + 10);
    } else {
      return fail();
    }
  }
  return true;
}

/// Decodes the escape whose backslash has been read, onto `decoded_`.
bool JsonPullReader::readEscape(const char*& start) {
  if (cursor_ == end_ && !refill(start)) return fail();
  const char c = *cursor_++;
  constexpr std::string_view names = "\"\\/bfnrt";
  constexpr std::string_view values = "\"\\/\b\f\n\r\t";
  if (const auto known = names.find(c); known != std::string_view::npos) {
    decoded_ += values[known];
    return true;
  }
  std::uint32_t code = 0;
  if (c != 'u' || !readHex4(start, code)) return fail();
  if (code >= 0xDC00 && code < 0xE000) return fail();
  if (code >= 0xD800 && code < 0xDC00) {
    std::uint32_t low = 0;
    for (const char due : {'\\', 'u'}) {
      if (cursor_ == end_ && !refill(start)) return fail();
      if (*cursor_++ != due) return fail();
    }
    if (!readHex4(start, low) || low < 0xDC00 || low >= 0xE000) return fail();
    code = 0x10000 + ((code - 0xD800) << 10U) + (low - 0xDC00);
  }
  appendUtf8(decoded_, code);
  return true;
}

bool JsonPullReader::string(std::string_view& text) {
  if (!expect('"')) return false;
  const char* start = cursor_;  // of the part that has not been copied to `decoded_`
  bool isDecoded = false;
  const auto pending = [&] { return std::string_view(start, static_cast<std::size_t>(cursor_ - start)); };
  for (;;) {
    cursor_ += plainJsonPrefix({cursor_, static_cast<std::size_t>(end_ - cursor_)});
    if (cursor_ == end_) {
      if (!refill(start)) return fail();
      continue;
    }
    const auto byte = static_cast<unsigned char>(*cursor_);
    if (byte == '"') break;
    if (byte == '\\') {
      if (!isDecoded) decoded_.clear();
      isDecoded = true;
      decoded_ += pending();
      ++cursor_;
      if (!readEscape(start)) return false;
      if (decoded_.size() > maximumTokenBytes) return fail();
      start = cursor_;
      continue;
    }
    if (byte < 0x80) return fail();  // a control character
    while (end_ - cursor_ < 4 && refill(start)) {
    }
    const auto length = utf8SequenceLength({cursor_, static_cast<std::size_t>(end_ - cursor_)});
    if (length == 0) return fail();
    cursor_ += length;
  }
  if (isDecoded) {
    decoded_ += pending();
    text = decoded_;
  } else {
    text = pending();
  }
  ++cursor_;
  return true;
}

bool JsonPullReader::number(Number& number) {
  if (!isNumber()) return fail();
  const char* start = cursor_;
  const auto at = [&] { return cursor_ != end_ || refill(start) ? *cursor_ : '\0'; };
  const auto digits = [&] {
    if (!isDigit(at())) return fail();
    while (isDigit(at())) ++cursor_;
    return true;
  };
  if (at() == '-') ++cursor_;
  if (at() == '0') {
    ++cursor_;
  } else if (!digits()) {
    return false;
  }
  bool isWhole = true;
  if (at() == '.') {
    isWhole = false;
    ++cursor_;
    if (!digits()) return false;
  }
  if (at() == 'e' || at() == 'E') {
    isWhole = false;
    ++cursor_;
    if (at() == '+' || at() == '-') ++cursor_;
    if (!digits()) return false;
  }
  number.integer.reset();
  if (isWhole) {
    std::int64_t value = 0;
    if (std::from_chars(start, cursor_, value).ec == std::errc{}) {
      number.integer = value;
      number.value = static_cast<double>(value);
      return true;
    }
  }
  // A number beyond the range of a double is no number that we wrote.
  return std::from_chars(start, cursor_, number.value).ec == std::errc{} || fail();
}

bool JsonPullReader::takeNull() { return peek() == 'n' && expectWord("null"); }

bool JsonPullReader::skipValue(int depth) {
  constexpr int maximumDepth = 64;
  if (depth > maximumDepth) return fail();
  std::string_view text;
  switch (peek()) {
    case '{':
      if (!beginObject()) return false;
      while (nextMember(text)) {
        if (!skipValue(depth + 1)) return false;
      }
      return !failed_;
    case '[':
      if (!beginArray()) return false;
      while (nextElement()) {
        if (!skipValue(depth + 1)) return false;
      }
      return !failed_;
    case '"':
      return string(text);
    case 't':
      return expectWord("true");
    case 'f':
      return expectWord("false");
    case 'n':
      return expectWord("null");
    default: {
      Number ignored;
      return number(ignored);
    }
  }
}

bool JsonPullReader::atEnd() { return peek() == '\0' && cursor_ == end_ && !failed_; }

}  // namespace vimbrel
