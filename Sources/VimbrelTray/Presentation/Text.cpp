// SPDX-License-Identifier: Apache-2.0
#include "Presentation/Text.h"

namespace vimbrel::desktop {
namespace {

Translator& installed() {
  static Translator translator;
  return translator;
}

}  // namespace

void setTranslator(Translator translator) { installed() = std::move(translator); }

std::string say(const char* english) { return installed() ? installed()(english) : english; }

std::string say(const char* english, std::initializer_list<std::string_view> values) {
  const auto pattern = say(english);
  std::string result;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const auto digit = i + 1 < pattern.size() ? pattern[i + 1] - '1' : -1;
    if (pattern[i] == '%' && digit >= 0 && static_cast<std::size_t>(digit) < values.size()) {
      result += values.begin()[digit];
      ++i;
    } else {
      result += pattern[i];
    }
  }
  return result;
}

std::string sayCount(std::int64_t count, const char* one, const char* many) {
  return say(count == 1 ? one : many, {std::to_string(count)});
}

}  // namespace vimbrel::desktop
