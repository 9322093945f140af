// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Support/JsonWriter.h"

namespace vimbrel {

/// Finds the first text value of one member of a JSON object, in bytes that come in pieces and need not come
/// whole: it looks at each byte once, keeps nothing but the value, and allocates nothing. Members of inner
/// objects do not count. It trusts the text to be JSON and notices only some of what is not; for every JSON
/// text it finds what a parser finds.
class JsonMemberScanner {
 public:
  enum class Progress {
    more,    ///< not found in what came so far
    found,   ///< `value` is complete
    absent,  ///< not to be found, whatever comes
  };

  /// The longest value in bytes that is kept; a longer one counts as not there, because a part of a name is
  /// another name.
  static constexpr std::size_t maximumValueBytes = 1024;

  /// `key` is borrowed.
  explicit JsonMemberScanner(std::string_view key) : key_(key) {}

  /// Looks at the next bytes. Those after the end of the search are ignored.
  Progress feed(std::string_view bytes) {
    while (!bytes.empty() && progress_ == Progress::more) {
      // Most bytes stand in texts that are not looked for.
      if (place_ == Place::inSkippedText && !isEscaped_ && hexDigitsLeft_ == 0) {
        bytes.remove_prefix(plainJsonPrefix(bytes));
        if (bytes.empty()) break;
      }
      take(bytes.front());
      bytes.remove_prefix(1);
    }
    return progress_;
  }

  [[nodiscard]] Progress progress() const { return progress_; }
  /// The value's UTF-8 text with its escapes resolved, once `feed` has answered `found`; borrowed from this
  /// object.
  [[nodiscard]] std::string_view value() const { return {value_, valueSize_}; }

 private:
  enum class Place {
    beforeObject,
    beforeKey,  // of the outermost object
    inKey,
    beforeColon,
    beforeValue,
    inWanted,   // the text that is looked for
    inSkipped,  // another value, in which `depth_` objects and lists are open
    inSkippedText,
  };

  static bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
  void giveUp() { progress_ = Progress::absent; }

  void take(char c) {
    switch (place_) {
      case Place::beforeObject:
        if (isBlank(c)) return;
        if (c != '{') return giveUp();
        place_ = Place::beforeKey;
        return;
      case Place::beforeKey:
        if (isBlank(c) || c == ',') return;
        if (c != '"') return giveUp();  // The end of the object, or no JSON.
        place_ = Place::inKey;
        matched_ = 0;
        isKey_ = true;
        return;
      case Place::beforeColon:
        if (isBlank(c)) return;
        if (c != ':') return giveUp();
        place_ = Place::beforeValue;
        return;
      case Place::beforeValue:
        if (isBlank(c)) return;
        place_ = Place::inSkipped;
        depth_ = 0;
        if (c == '"' && isKey_) {
          place_ = Place::inWanted;
        } else {
          takeSkipped(c);
        }
        return;
      case Place::inSkipped:
        takeSkipped(c);
        return;
      case Place::inKey:
      case Place::inWanted:
      case Place::inSkippedText:
        takeInText(c);
        return;
    }
  }

  void takeSkipped(char c) {
    if (c == '"') {
      place_ = Place::inSkippedText;
    } else if (c == '{' || c == '[') {
      ++depth_;
    } else if (depth_ > 0) {
      if (c == '}' || c == ']') --depth_;
    } else if (c == ',') {
      place_ = Place::beforeKey;
    } else if (c == '}') {
      giveUp();
    }
  }

  void takeInText(char c) {
    if (hexDigitsLeft_ > 0) {
      takeHexDigit(c);
    } else if (isEscaped_) {
      isEscaped_ = false;
      takeEscape(c);
    } else if (c == '\\') {
      isEscaped_ = true;
    } else if (c == '"') {
      endHalfPair();
      endText();
    } else {
      endHalfPair();
      emit(c);
    }
  }

  void takeEscape(char c) {
    if (c == 'u') {
      hexDigitsLeft_ = 4;
      unit_ = 0;
      return;
    }
    endHalfPair();
    switch (c) {
      case 'b':
        return emit('\b');
      case 'f':
        return emit('\f');
      case 'n':
        return emit('\n');
      case 'r':
        return emit('\r');
      case 't':
        return emit('\t');
      case '"':
      case '\\':
      case '/':
        return emit(c);
      default:
        giveUp();
    }
  }

  void takeHexDigit(char c) {
    unsigned digit = 0;
    if (c >= '0' && c <= '9') {
      digit = static_cast<unsigned>(c - '0');
    } else if ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')) {
      digit = static_cast<unsigned>((c | 0x20) - 'a' + 10);
    } else {
      return giveUp();
    }
    unit_ = unit_ << 4U | digit;
    if (--hexDigitsLeft_ > 0) return;
    const bool endsPair = unit_ >= 0xDC00 && unit_ < 0xE000 && highSurrogate_ != 0;
    if (endsPair) {
      const auto whole = 0x10000 + ((highSurrogate_ - 0xD800) << 10U) + (unit_ - 0xDC00);
      highSurrogate_ = 0;
      return emitCodePoint(whole);
    }
    endHalfPair();
    if (unit_ >= 0xD800 && unit_ < 0xDC00) {
      highSurrogate_ = unit_;
    } else {
      emitCodePoint(unit_ >= 0xDC00 && unit_ < 0xE000 ? replacement : unit_);
    }
  }

  void endHalfPair() {
    if (highSurrogate_ == 0) return;
    highSurrogate_ = 0;
    emitCodePoint(replacement);
  }

  void emitCodePoint(std::uint32_t code) {
    const auto byte = [](std::uint32_t bits) { return static_cast<char>(static_cast<unsigned char>(bits)); };
    const auto following = [&](unsigned shift) { emit(byte(0x80 | ((code >> shift) & 0x3FU))); };
    if (code < 0x80) return emit(byte(code));
    if (code < 0x800) {
      emit(byte(0xC0 | (code >> 6U)));
      return following(0);
    }
    if (code < 0x10000) {
      emit(byte(0xE0 | (code >> 12U)));
    } else {
      emit(byte(0xF0 | (code >> 18U)));
      following(12);
    }
    following(6);
    following(0);
  }

  /// One byte of a text's meaning.
  void emit(char c) {
    if (place_ == Place::inKey) {
      isKey_ = isKey_ && matched_ < key_.size() && key_[matched_] == c;
      ++matched_;
    } else if (place_ == Place::inWanted) {
      if (valueSize_ == sizeof value_) {
        isTooLong_ = true;
      } else {
        value_[valueSize_++] = c;
      }
    }
  }

  void endText() {
    switch (place_) {
      case Place::inKey:
        isKey_ = isKey_ && matched_ == key_.size();
        place_ = Place::beforeColon;
        return;
      case Place::inWanted:
        // What follows cannot make an unusable name a usable one.
        progress_ = isTooLong_ || valueSize_ == 0 ? Progress::absent : Progress::found;
        return;
      default:
        place_ = Place::inSkipped;
        return;
    }
  }

  static constexpr std::uint32_t replacement = 0xFFFD;

  const std::string_view key_;
  Progress progress_ = Progress::more;
  Place place_ = Place::beforeObject;
  bool isKey_ = false;       // what was read of the key is the beginning of ours, at its end all of it
  std::size_t matched_ = 0;  // bytes of the key read
  std::size_t depth_ = 0;
  bool isEscaped_ = false;
  int hexDigitsLeft_ = 0;
  std::uint32_t unit_ = 0;
  std::uint32_t highSurrogate_ = 0;  // the first half of a pair, or 0
  bool isTooLong_ = false;
  std::size_t valueSize_ = 0;
  char value_[maximumValueBytes];
};

}  // namespace vimbrel
