// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Catalogue.h"

namespace vimbrel {

/// Tells finished English sentences (`Support/Sentence.h`) in the catalogue's language: finds the pattern
/// that a sentence was made from, takes the values out of it, and puts them into the translation. Values that
/// are sentences are told in the same way. What nobody knows (a path, a sentence of a newer application)
/// stays. Any thread.
class Retelling {
 public:
  /// The context of sentences in the catalogue.
  static constexpr std::string_view context = "sentence";

  /// The catalogue must outlive this object.
  explicit Retelling(const Catalogue& catalogue);

  [[nodiscard]] std::string retell(std::string_view english) const;

 private:
  struct Pattern {
    std::vector<std::string_view> literals;  ///< one more than marks; may be empty
    std::vector<std::size_t> marks;          ///< 0 for "%1"
    std::size_t literalBytes = 0;
    std::string_view key;  ///< as in the catalogue
    bool isCounted = false;
  };
  [[nodiscard]] static Pattern patternOf(std::string_view text);
  [[nodiscard]] static std::optional<std::vector<std::string_view>> valuesIn(std::string_view text,
                                                                             const Pattern& pattern);
  [[nodiscard]] std::string retell(std::string_view english, int depth) const;
  [[nodiscard]] std::optional<std::string> known(std::string_view english, int depth) const;

  const Catalogue& catalogue_;
  std::vector<Pattern> patterns_;  ///< those that say most themselves come first
};

}  // namespace vimbrel
