// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string_view>

namespace vimbrel {

/// Finds the end of one JSON object in bytes that arrive in pieces, in time linear in their number. It judges
/// nothing but the nesting; what lies inside is the decoder's business.
class MessageEnd {
 public:
  enum class Verdict { incomplete, complete, malformed };

  /// Takes the next piece. After `complete` or `malformed` further bytes change nothing.
  Verdict feed(std::string_view bytes) {
    for (const char byte : bytes) {
      if (verdict_ != Verdict::incomplete) break;
      take(byte);
    }
    return verdict_;
  }

 private:
  static constexpr int maximumDepth = 16;  // A request has one.

  void take(char byte) {
    if (inString_) {
      if (escaped_) {
        escaped_ = false;
      } else if (byte == '\\') {
        escaped_ = true;
      } else if (byte == '"') {
        inString_ = false;
      }
      return;
    }
    const bool blank = byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r';
    if (depth_ == 0 && byte != '{' && !blank) {
      verdict_ = Verdict::malformed;
    } else if (byte == '"') {
      inString_ = true;
    } else if (byte == '{' || byte == '[') {
      if (++depth_ > maximumDepth) verdict_ = Verdict::malformed;
    } else if (byte == '}' || byte == ']') {
      if (--depth_ == 0) verdict_ = Verdict::complete;
    }
  }

  Verdict verdict_ = Verdict::incomplete;
  int depth_ = 0;
  bool inString_ = false;
  bool escaped_ = false;
};

}  // namespace vimbrel
