// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// Reads one JSON document of any size from a stream in bounded memory: the caller asks for what it expects,
/// value by value. For our own large files; a general document tree of them would take many times their size.
///
/// The grammar is checked strictly, UTF-8 included. The first error, also "this is not what was asked for",
/// sticks: every later call fails. Any one thread.
class JsonPullReader {
 public:
  /// Fills the buffer and returns the number of bytes, 0 at the end, negative on an error.
  using Source = std::move_only_function<std::ptrdiff_t(char* buffer, std::size_t size)>;

  /// No single string or number may be longer than this many bytes.
  static constexpr std::size_t maximumTokenBytes = 1 << 20;

  explicit JsonPullReader(Source source);
  /// Reads from memory that outlives the reader.
  explicit JsonPullReader(std::string_view document);

  /// A number as the document wrote it: `integer` is set when it has neither fraction nor exponent and fits.
  struct Number {
    double value = 0;
    std::optional<std::int64_t> integer;
  };

  [[nodiscard]] bool beginObject();
  /// The next member's name, to be followed by reading its value; false at the object's end, or on an error.
  /// The name is valid until the next call.
  [[nodiscard]] bool nextMember(std::string_view& name);
  [[nodiscard]] bool beginArray();
  /// True when another element follows; false at the array's end, or on an error.
  [[nodiscard]] bool nextElement();

  /// Valid until the next call.
  [[nodiscard]] bool string(std::string_view& text);
  [[nodiscard]] bool number(Number& number);
  /// Consumes a null if one stands here.
  [[nodiscard]] bool takeNull();
  /// True when a string (a number) stands here.
  [[nodiscard]] bool isString() { return peek() == '"'; }
  [[nodiscard]] bool isNumber() {
    const char next = peek();
    return next == '-' || (next >= '0' && next <= '9');
  }
  /// Passes over any value; nesting deeper than 64 is an error.
  [[nodiscard]] bool skipValue(int depth = 0);
  /// True when nothing but white space is left.
  [[nodiscard]] bool atEnd();
  [[nodiscard]] bool failed() const { return failed_; }

 private:
  char peek() {
    if (colonPending_ && cursor_ != end_ && *cursor_ == ':') {
      ++cursor_;
      colonPending_ = false;
    }
    if (!colonPending_ && cursor_ != end_ && *cursor_ > ' ') return *cursor_;
    return peekPastSpace();
  }
  char peekPastSpace();
  bool expect(char character);
  bool expectWord(std::string_view word);
  bool fail();
  bool refill(const char*& keep);
  bool readEscape(const char*& start);
  bool readHex4(const char*& start, std::uint32_t& code);

  Source source_;
  std::string buffer_;
  std::string decoded_;
  const char* cursor_ = nullptr;
  const char* end_ = nullptr;
  bool sourceEnded_ = false;
  bool failed_ = false;
  bool first_ = false;         ///< no member or element of the innermost container has been read yet
  bool colonPending_ = false;  ///< a name was read, its value not yet
};

}  // namespace vimbrel
