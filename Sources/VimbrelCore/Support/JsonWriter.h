// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace vimbrel {

/// Length of the well-formed UTF-8 sequence at the front of `text`, or 0 when it is malformed (overlong
/// forms, surrogates and values above U+10FFFF included).
constexpr std::size_t utf8SequenceLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto follows = [&](std::size_t i) { return i < text.size() && (at(i) & 0xC0U) == 0x80U; };
  if (text.empty()) return 0;
  const unsigned lead = at(0);
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return follows(1) ? 2 : 0;
  if (lead >= 0xE0 && lead <= 0xEF) {
    if (!follows(1) || !follows(2)) return 0;
    if (lead == 0xE0 && at(1) < 0xA0) return 0;
    if (lead == 0xED && at(1) > 0x9F) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4) {
    if (!follows(1) || !follows(2) || !follows(3)) return 0;
    if (lead == 0xF0 && at(1) < 0x90) return 0;
    if (lead == 0xF4 && at(1) > 0x8F) return 0;
    return 4;
  }
  return 0;
}

/// How many bytes at the front of `text` stand for themselves in a JSON string and are ASCII. Eight bytes at
/// a time: most texts are plain throughout.
inline std::size_t plainJsonPrefix(std::string_view text) {
  constexpr std::uint64_t ones = 0x0101010101010101U;
  constexpr std::uint64_t tops = 0x8080808080808080U;
  std::size_t i = 0;
  for (; text.size() - i >= 8; i += 8) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text.data() + i, 8);
    const auto zeroBytes = [](std::uint64_t word) { return (word - ones) & ~word; };
    const auto special = (bytes | ((bytes - ones * 0x20) & ~bytes) | zeroBytes(bytes ^ ones * '"') |
                          zeroBytes(bytes ^ ones * '\\')) &
                         tops;
    if (special != 0) break;
  }
  while (i < text.size()) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte >= 0x80 || byte == '"' || byte == '\\') break;
    ++i;
  }
  return i;
}

enum class SlashEscape { plain, escaped };

/// Appends `text` as a JSON string, quotes included, to anything with `append(const char*, std::size_t)`.
/// Malformed UTF-8 becomes U+FFFD, so that whatever stands in a file name or an argument gives valid JSON.
template <typename Sink>
void appendJsonString(Sink& sink, std::string_view text, SlashEscape slashes = SlashEscape::plain) {
  constexpr std::string_view digits = "0123456789abcdef";
  sink.append("\"", 1);
  std::size_t start = 0;
  std::size_t i = slashes == SlashEscape::plain ? plainJsonPrefix(text) : 0;
  const auto flush = [&] { sink.append(text.data() + start, i - start); };
  while (i < text.size()) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\' &&
        !(byte == '/' && slashes == SlashEscape::escaped)) {
      ++i;
      continue;
    }
    if (byte >= 0x80) {
      const auto length = utf8SequenceLength(text.substr(i));
      if (length != 0) {
        i += length;
        continue;
      }
      flush();
      sink.append("\xEF\xBF\xBD", 3);
    } else {
      flush();
      char escape[6] = {'\\', static_cast<char>(byte), '0', '0', digits[byte >> 4U], digits[byte & 15U]};
      std::size_t length = 2;
      switch (byte) {
        case '\b':
          escape[1] = 'b';
          break;
        case '\f':
          escape[1] = 'f';
          break;
        case '\n':
          escape[1] = 'n';
          break;
        case '\r':
          escape[1] = 'r';
          break;
        case '\t':
          escape[1] = 't';
          break;
        case '"':
        case '\\':
        case '/':
          break;
        default:
          escape[1] = 'u';
          length = 6;
      }
      sink.append(escape, length);
    }
    start = ++i;
  }
  flush();
  sink.append("\"", 1);
}

template <typename Sink>
void appendInteger(Sink& sink, std::int64_t value) {
  char text[24];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  sink.append(text, static_cast<std::size_t>(end - text));
}

/// The shortest decimal text that reads back as the same number; whole numbers end in ".0". JSON has no
/// infinities and no not-a-number: they are written as the largest finite number and as 0.
inline std::string shortestDecimal(double value) {
  if (std::isnan(value)) value = 0;
  if (std::isinf(value)) value = std::copysign(std::numeric_limits<double>::max(), value);
  char text[400];
  const double magnitude = std::fabs(value);
  const bool plain = magnitude == 0 || (magnitude >= 1e-5 && magnitude < 1e16);
  const auto end = plain ? std::to_chars(text, text + sizeof text, value, std::chars_format::fixed).ptr
                         : std::to_chars(text, text + sizeof text, value).ptr;
  std::string result(text, end);
  if (result.find_first_of(".eE") == std::string::npos) result += ".0";
  return result;
}

}  // namespace vimbrel
