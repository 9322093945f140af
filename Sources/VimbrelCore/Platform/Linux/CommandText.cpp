// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/CommandText.h"

#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cstdint>

namespace vimbrel::commandText {
namespace {

constexpr bool isPrintableAscii(unsigned char byte) { return byte >= 0x20 && byte < 0x7F; }

/// How many bytes the lead byte announces; 0 when it cannot lead.
constexpr std::size_t announcedLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF4) return 4;
  return 0;
}

/// First pass: control characters, and everything after the first byte that makes no sense.
void escapeControls(std::string& text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const auto length = announcedLength(byte);
    if (length == 0 || i + length > text.size()) {
      std::replace_if(
          text.begin() + static_cast<std::ptrdiff_t>(i), text.end(),
          [](char c) { return !isPrintableAscii(static_cast<unsigned char>(c)); }, '?');
      return;
    }
    if (length == 1 && !isPrintableAscii(byte)) text[i] = '?';
    i += length;
  }
}

struct Character {
  std::uint32_t code = 0;
  std::size_t length = 0;  ///< 0 when malformed
};

/// Decodes as the C library does: overlong forms and surrogates are malformed, values above U+10FFFF are not.
Character decode(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto length = announcedLength(at(0));
  if (length == 0 || length > text.size()) return {};
  constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  std::uint32_t code = length == 1 ? at(0) : at(0) & (0x7FU >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xC0U) != 0x80U) return {};
    code = (code << 6U) | (at(i) & 0x3FU);
  }
  if (code < smallest[length] || (code >= 0xD800 && code <= 0xDFFF)) return {};
  return {code, length};
}

bool isPrintable(std::uint32_t code) {
  // The program's own locale may be any; what the desktop's `ps` prints is in UTF-8.
  static const locale_t utf8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
  if (utf8 == nullptr) return code >= 0xA0 && code <= 0x10FFFF;
  return ::iswprint_l(code, utf8) != 0;
}

/// Second pass: what is malformed after all, and what cannot be printed.
std::string escapeUnprintable(std::string_view text, std::size_t maximumLength) {
  std::string result;
  result.reserve(std::min(text.size(), maximumLength));
  while (!text.empty()) {
    const auto character = decode(text);
    const auto length = std::max<std::size_t>(character.length, 1);
    const bool keep = character.length == 1 || (character.length > 1 && isPrintable(character.code));
    if (result.size() + (keep ? length : 1) > maximumLength) break;
    if (keep) {
      result.append(text.substr(0, length));
    } else {
      result.push_back('?');
    }
    text.remove_prefix(length);
  }
  return result;
}

std::string escaped(std::string text, std::size_t maximumLength) {
  const bool plain =
      std::ranges::all_of(text, [](char c) { return isPrintableAscii(static_cast<unsigned char>(c)); });
  if (!plain) {
    escapeControls(text);
    return escapeUnprintable(text, maximumLength);
  }
  if (text.size() > maximumLength) text.resize(maximumLength);
  return text;
}

}  // namespace

std::string fromArguments(std::string_view bytes, std::size_t maximumLength) {
  // One byte of its buffer is the terminating NUL.
  bytes = bytes.substr(0, maximumArgumentBytes - 1);
  while (bytes.ends_with('\0')) bytes.remove_suffix(1);
  if (bytes.empty()) return "?";
  std::string text(bytes);
  std::ranges::replace_if(text, [](char c) { return c == '\0' || c == '\n'; }, ' ');
  return escaped(std::move(text), maximumLength);
}

std::string fromName(std::string_view name, Defunct defunct) {
  std::string text(name);
  escapeControls(text);
  text.insert(text.begin(), '[');
  text += defunct == Defunct::yes ? "] <defunct>" : "]";
  return escaped(std::move(text), maximumArgumentBytes);
}

}  // namespace vimbrel::commandText
