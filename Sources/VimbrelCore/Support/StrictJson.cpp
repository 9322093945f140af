// SPDX-License-Identifier: Apache-2.0
#include "Support/StrictJson.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>

namespace vimbrel {

StrictJsonObject::StrictJsonObject(const nlohmann::json& value, std::string name)
    : value_(value), name_(std::move(name)) {
  if (!value_.is_object()) error_ = name_ + ": not a JSON object";
}

void StrictJsonObject::fail(std::string_view key, std::string_view problem) {
  if (!error_) error_ = name_ + ": \"" + std::string(key) + "\" " + std::string(problem);
}

const nlohmann::json* StrictJsonObject::member(std::string_view key) const {
  if (!value_.is_object()) return nullptr;
  const auto found = value_.find(key);
  return found == value_.end() || found->is_null() ? nullptr : &*found;
}

std::optional<bool> StrictJsonObject::optionalBoolean(std::string_view key) {
  const auto* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_boolean()) return value->get<bool>();
  fail(key, "is not true or false");
  return std::nullopt;
}

std::optional<std::int64_t> StrictJsonObject::optionalInteger(std::string_view key) {
  const auto* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_number_unsigned()) {
    const auto number = value->get<std::uint64_t>();
    if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<std::int64_t>(number);
    }
    fail(key, "is out of range");
    return std::nullopt;
  }
  if (value->is_number_integer()) return value->get<std::int64_t>();
  fail(key, "is not a whole number");
  return std::nullopt;
}

std::optional<double> StrictJsonObject::optionalNumber(std::string_view key) {
  const auto* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_number()) return value->get<double>();
  fail(key, "is not a number");
  return std::nullopt;
}

std::optional<std::string> StrictJsonObject::optionalString(std::string_view key) {
  const auto* value = member(key);
  if (value == nullptr) return std::nullopt;
  if (value->is_string()) return value->get<std::string>();
  fail(key, "is not a string");
  return std::nullopt;
}

template <typename T>
T StrictJsonObject::required(std::string_view key, std::optional<T> value) {
  if (!value) fail(key, "is missing");
  return value.value_or(T{});
}

bool StrictJsonObject::boolean(std::string_view key) { return required(key, optionalBoolean(key)); }
std::int64_t StrictJsonObject::integer(std::string_view key) { return required(key, optionalInteger(key)); }
double StrictJsonObject::number(std::string_view key) { return required(key, optionalNumber(key)); }
std::string StrictJsonObject::string(std::string_view key) { return required(key, optionalString(key)); }

std::optional<nlohmann::json> parseJson(std::string_view text) {
  auto value = nlohmann::json::parse(text, nullptr, false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

}  // namespace vimbrel
