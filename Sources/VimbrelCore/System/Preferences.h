// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "Support/Instant.h"
#include "Support/Published.h"

namespace vimbrel {

/// A preference's value; `std::monostate` means that there is none.
using PreferenceValue = std::variant<std::monostate, bool, std::int64_t, double, Instant>;

enum class PreferenceType : std::uint8_t { boolean, integer, number, date };

/// The value as the given type: a whole number reads as a number, and a number without a fraction as a whole
/// number; nothing else converts, which gives `std::monostate`.
[[nodiscard]] PreferenceValue convertPreference(const PreferenceValue& value, PreferenceType type);

/// Why preferences could not be written: a sentence for people.
struct PreferencesError {
  std::string text;
  bool operator==(const PreferencesError&) const = default;
};

/// A persistent store of typed values. Safe for concurrent use.
class Preferences {
 public:
  using Change = std::pair<std::string_view, PreferenceValue>;

  virtual ~Preferences() = default;
  /// The stored value, if there is one that converts to the type (see `convertPreference`).
  [[nodiscard]] virtual PreferenceValue value(std::string_view key, PreferenceType type) const = 0;
  /// Stores all of the values or, on failure, none; `std::monostate` removes its key.
  [[nodiscard]] virtual std::expected<void, PreferencesError> store(std::span<const Change> changes) = 0;
  /// What of the stored data cannot be used and what is taken instead, one sentence each.
  [[nodiscard]] virtual std::vector<std::string> warnings() const = 0;
  /// Where the data is, for people.
  [[nodiscard]] virtual std::string location() const = 0;
  /// Sent when the data, or what of it cannot be used, was changed from outside, not by `store`. On the
  /// thread that noticed.
  ChangeSignal& changedOutside() { return changedOutside_; }

 protected:
  ChangeSignal changedOutside_;
};

/// Preferences that last as long as the object.
class MemoryPreferences final : public Preferences {
 public:
  [[nodiscard]] PreferenceValue value(std::string_view key, PreferenceType type) const override;
  [[nodiscard]] std::expected<void, PreferencesError> store(std::span<const Change> changes) override;
  [[nodiscard]] std::vector<std::string> warnings() const override { return {}; }
  [[nodiscard]] std::string location() const override { return "memory"; }

 private:
  mutable std::mutex lock_;
  std::map<std::string, PreferenceValue, std::less<>> values_;
};

}  // namespace vimbrel
