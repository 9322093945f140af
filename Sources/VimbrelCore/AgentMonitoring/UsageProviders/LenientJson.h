// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel::lenient {

/// Reading outside JSON field by field: a value that is missing or of another type is absent. For source
/// files only.

using Element = simdjson::dom::element;

inline std::optional<Element> member(const Element& value, std::string_view key) {
  Element found;
  if (!value.is_object() || value[key].get(found) != simdjson::SUCCESS) return std::nullopt;
  return found;
}

inline std::optional<Element> object(const Element& value, std::string_view key) {
  const auto found = member(value, key);
  return found && found->is_object() ? found : std::nullopt;
}

/// Lives until the parser's next document.
inline std::optional<std::string_view> text(const Element& value, std::string_view key) {
  const auto found = member(value, key);
  std::string_view characters;
  if (!found || found->get(characters) != simdjson::SUCCESS) return std::nullopt;
  return characters;
}

inline std::optional<std::string> string(const Element& value, std::string_view key) {
  const auto characters = text(value, key);
  return characters ? std::optional<std::string>(*characters) : std::nullopt;
}

inline std::optional<std::int64_t> integer(const Element& value, std::string_view key) {
  const auto found = member(value, key);
  std::int64_t number = 0;
  if (!found || found->type() != simdjson::dom::element_type::INT64 ||
      found->get(number) != simdjson::SUCCESS) {
    return std::nullopt;
  }
  return number;
}

/// Any number, whole or not.
inline std::optional<double> number(const Element& value, std::string_view key) {
  const auto found = member(value, key);
  double result = 0;
  if (!found || !found->is_number() || found->get(result) != simdjson::SUCCESS) return std::nullopt;
  return result;
}

}  // namespace vimbrel::lenient
