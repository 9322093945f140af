// SPDX-License-Identifier: Apache-2.0
#include "Platform/ProcessLine.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "Support/JsonWriter.h"

namespace vimbrel {
namespace {

/// Length of the newline character at the front of `text`, or 0: LF, VT, FF, CR, NEL, LS and PS.
std::size_t newlineLength(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  if (first >= 0x0A && first <= 0x0D) return 1;
  if (first == 0xC2 && text.starts_with("\xC2\x85")) return 2;
  if (first == 0xE2 && (text.starts_with("\xE2\x80\xA8") || text.starts_with("\xE2\x80\xA9"))) return 3;
  return 0;
}

// The white space of Unicode beyond ASCII that is not a newline (those never reach the trimming).
constexpr std::array<std::string_view, 16> wideSpaces{
    "\xC2\xA0",     "\xE1\x9A\x80", "\xE2\x80\x80", "\xE2\x80\x81", "\xE2\x80\x82", "\xE2\x80\x83",
    "\xE2\x80\x84", "\xE2\x80\x85", "\xE2\x80\x86", "\xE2\x80\x87", "\xE2\x80\x88", "\xE2\x80\x89",
    "\xE2\x80\x8A", "\xE2\x80\xAF", "\xE2\x81\x9F", "\xE3\x80\x80"};

bool isNarrowSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

std::string_view trimmed(std::string_view text) {
  for (;;) {
    const auto before = text.size();
    while (!text.empty() && isNarrowSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isNarrowSpace(text.back())) text.remove_suffix(1);
    const auto isAscii = [](char c) { return static_cast<unsigned char>(c) < 0x80; };
    if (text.empty() || (isAscii(text.front()) && isAscii(text.back()))) return text;
    for (const auto space : wideSpaces) {
      if (text.starts_with(space)) text.remove_prefix(space.size());
      if (text.ends_with(space)) text.remove_suffix(space.size());
    }
    if (text.size() == before) return text;
  }
}

}  // namespace

std::optional<ProcessEntry> parseProcessLine(std::string_view line) {
  const auto text = trimmed(line);
  const auto space = text.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  auto digits = text.substr(0, space);
  // A sign is part of a decimal number, but from_chars knows only the minus.
  if (digits.starts_with('+') && !digits.starts_with("+-")) digits.remove_prefix(1);
  ProcessEntry entry;
  const auto* end = digits.data() + digits.size();
  const auto [stopped, fault] = std::from_chars(digits.data(), end, entry.pid);
  if (fault != std::errc{} || stopped != end) return std::nullopt;
  entry.command = text.substr(space + 1);
  return entry;
}

void appendProcessLines(std::string_view listing, std::vector<ProcessEntry>& entries) {
  std::size_t start = 0;
  for (std::size_t at = 0; at <= listing.size();) {
    const auto newline = at == listing.size() ? 1 : newlineLength(listing.substr(at));
    if (newline == 0) {
      ++at;
      continue;
    }
    if (auto entry = parseProcessLine(listing.substr(start, at - start))) {
      entries.push_back(std::move(*entry));
    }
    at += newline;
    start = at;
  }
}

bool isValidUtf8(std::string_view text) {
  while (!text.empty()) {
    const auto length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace vimbrel
