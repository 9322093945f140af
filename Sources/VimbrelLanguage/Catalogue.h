// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "PluralRule.h"

namespace vimbrel {

/// One language's texts: a compiled message catalogue of GNU gettext (".mo", its manual's "The Format of GNU
/// MO Files"), mapped into memory, so that only what is asked for is read. Of either byte order; UTF-8.
/// Any thread; what it returns lives as long as the catalogue.
class Catalogue {
 public:
  /// The error says what is wrong with the file.
  [[nodiscard]] static std::expected<Catalogue, std::string> open(const std::string& path);
  /// The same of bytes that outlive the catalogue.
  [[nodiscard]] static std::expected<Catalogue, std::string> overBytes(std::string_view bytes);

  Catalogue(Catalogue&& other) noexcept;
  Catalogue& operator=(Catalogue&&) = delete;
  ~Catalogue();

  /// The translation of a text; absent when there is none, or the file is broken there. `context` tells
  /// between texts that are the same in English; empty for none.
  [[nodiscard]] std::optional<std::string_view> find(std::string_view context,
                                                     std::string_view english) const;
  /// The form that goes with the number, of a text that has plural forms.
  [[nodiscard]] std::optional<std::string_view> find(std::string_view context, std::string_view english,
                                                     std::int64_t number) const;

  struct Entry {
    std::string_view english;
    std::string_view englishPlural;  ///< empty for a text without plural forms
  };
  /// Every text of one context, which must not be empty.
  void forEach(std::string_view context, const std::function<void(const Entry&)>& visit) const;

 private:
  explicit Catalogue(std::string_view bytes) : bytes_(bytes) {}
  [[nodiscard]] std::optional<std::string> check();
  [[nodiscard]] std::uint32_t word(std::size_t offset) const;
  /// The string whose length and place stand in the table at `table`.
  [[nodiscard]] std::optional<std::string_view> text(std::uint32_t table, std::uint32_t index) const;
  [[nodiscard]] std::optional<std::string_view> formsOf(std::string_view key) const;

  std::string_view bytes_;
  bool isMapped_ = false;
  bool isSwapped_ = false;
  std::uint32_t count_ = 0;
  std::uint32_t originals_ = 0;
  std::uint32_t translations_ = 0;
  PluralRule plural_;
};

}  // namespace vimbrel
