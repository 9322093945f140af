// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vimbrel {

/// Which of a language's plural forms goes with a number, as the header of a catalogue says it:
/// "nplurals=2; plural=(n != 1);", the expression being C's without assignments.
class PluralRule {
 public:
  /// English's, which also stands for a rule that cannot be read.
  PluralRule() = default;
  /// From the whole value of the header "Plural-Forms".
  explicit PluralRule(std::string_view header);

  /// The form's index, from 0 and always below the number of forms. A negative number is taken by its amount.
  [[nodiscard]] std::size_t formFor(std::int64_t number) const;
  [[nodiscard]] std::size_t formCount() const { return count_; }

 private:
  std::size_t count_ = 2;
  std::string expression_ = "n != 1";
};

}  // namespace vimbrel
