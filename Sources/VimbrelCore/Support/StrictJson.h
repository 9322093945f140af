// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// Reads the fields of one of our own records strictly: a missing required key, or a value of another type,
/// is an error. The first error sticks and every later read gives a default, so that a decoder reads all its
/// fields and asks once at the end. Unknown keys are ignored; an optional key may be missing or null.
class StrictJsonObject {
 public:
  /// `name` says in error texts what is being read ("session"). The value must outlive the reader.
  StrictJsonObject(const nlohmann::json& value, std::string name);

  [[nodiscard]] bool boolean(std::string_view key);
  [[nodiscard]] std::int64_t integer(std::string_view key);
  [[nodiscard]] double number(std::string_view key);
  [[nodiscard]] std::string string(std::string_view key);
  [[nodiscard]] std::optional<bool> optionalBoolean(std::string_view key);
  [[nodiscard]] std::optional<std::int64_t> optionalInteger(std::string_view key);
  [[nodiscard]] std::optional<double> optionalNumber(std::string_view key);
  [[nodiscard]] std::optional<std::string> optionalString(std::string_view key);

  /// The member, or null when it is missing or null.
  [[nodiscard]] const nlohmann::json* member(std::string_view key) const;

  /// Records an error of the caller's own ("has an unknown state"), unless there is one already.
  void fail(std::string_view key, std::string_view problem);
  /// The first error, as a sentence ("session: \"id\" is missing"); absent when everything was read.
  [[nodiscard]] const std::optional<std::string>& error() const { return error_; }

 private:
  template <typename T>
  T required(std::string_view key, std::optional<T> value);

  const nlohmann::json& value_;
  std::string name_;
  std::optional<std::string> error_;
};

/// Parses a whole document without exceptions; absent when it is not valid JSON. Depth is bounded by the
/// parser's caller having bounded the text.
[[nodiscard]] std::optional<nlohmann::json> parseJson(std::string_view text);

}  // namespace vimbrel
