// SPDX-License-Identifier: Apache-2.0
#include "Support/Sentence.h"

#include <vector>

namespace vimbrel {

std::string filledIn(std::string_view pattern, const std::string_view* values, std::size_t count) {
  std::string result;
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const auto digit = i + 1 < pattern.size() ? pattern[i + 1] - '1' : -1;
    if (pattern[i] == '%' && digit >= 0 && static_cast<std::size_t>(digit) < count && digit < 9) {
      result += values[digit];
      ++i;
    } else {
      result += pattern[i];
    }
  }
  return result;
}

std::string sentence(const char* pattern, std::initializer_list<std::string_view> values) {
  return filledIn(pattern, values.begin(), values.size());
}

std::string sentenceCount(std::int64_t count, const char* one, const char* many,
                          std::initializer_list<std::string_view> values) {
  const auto number = std::to_string(count);
  std::vector<std::string_view> all{number};
  all.insert(all.end(), values);
  return filledIn(count == 1 ? one : many, all.data(), all.size());
}

}  // namespace vimbrel
