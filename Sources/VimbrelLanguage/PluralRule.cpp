// SPDX-License-Identifier: Apache-2.0
#include "PluralRule.h"

#include <array>
#include <charconv>
#include <optional>

namespace vimbrel {
namespace {

/// Far more than any language's rule needs.
constexpr int deepest = 40;
constexpr std::size_t mostForms = 16;

/// Evaluates while it reads: rules are short, and are asked a few times in a program's life.
class Evaluation {
 public:
  Evaluation(std::string_view text, std::uint64_t n) : rest_(text), n_(n) {}

  /// Absent when the text is no expression.
  std::optional<std::uint64_t> value() {
    const auto result = choice(0);
    skipBlanks();
    return isBroken_ || !rest_.empty() ? std::nullopt : std::optional(result);
  }

 private:
  using Number = std::uint64_t;
  struct Operator {
    std::string_view sign;
    int rank;  ///< binds the tighter, the higher
    Number (*apply)(Number, Number);
  };
  // Longer signs stand before those they begin with.
  static constexpr std::array<Operator, 13> operators{{
      {"||", 0, [](Number a, Number b) -> Number { return a != 0 || b != 0 ? 1 : 0; }},
      {"&&", 1, [](Number a, Number b) -> Number { return a != 0 && b != 0 ? 1 : 0; }},
      {"==", 2, [](Number a, Number b) -> Number { return a == b ? 1 : 0; }},
      {"!=", 2, [](Number a, Number b) -> Number { return a != b ? 1 : 0; }},
      {"<=", 3, [](Number a, Number b) -> Number { return a <= b ? 1 : 0; }},
      {">=", 3, [](Number a, Number b) -> Number { return a >= b ? 1 : 0; }},
      {"<", 3, [](Number a, Number b) -> Number { return a < b ? 1 : 0; }},
      {">", 3, [](Number a, Number b) -> Number { return a > b ? 1 : 0; }},
      {"+", 4, [](Number a, Number b) -> Number { return a + b; }},
      {"-", 4, [](Number a, Number b) -> Number { return a - b; }},
      {"*", 5, [](Number a, Number b) -> Number { return a * b; }},
      {"/", 5, [](Number a, Number b) -> Number { return b == 0 ? 0 : a / b; }},
      {"%", 5, [](Number a, Number b) -> Number { return b == 0 ? 0 : a % b; }},
  }};
  static constexpr int highestRank = 5;

  void skipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t"), rest_.size())); }

  bool take(std::string_view sign) {
    skipBlanks();
    if (!rest_.starts_with(sign)) return false;
    rest_.remove_prefix(sign.size());
    return true;
  }

  Number fail() {
    isBroken_ = true;
    rest_ = {};
    return 0;
  }

  Number choice(int depth) {
    if (depth > deepest) return fail();
    const auto condition = binary(0, depth);
    if (!take("?")) return condition;
    const auto then = choice(depth + 1);
    if (!take(":")) return fail();
    const auto otherwise = choice(depth + 1);
    return condition != 0 ? then : otherwise;
  }

  const Operator* takeOperator(int rank) {
    skipBlanks();
    for (const auto& each : operators) {
      if (!rest_.starts_with(each.sign)) continue;
      if (each.rank != rank) return nullptr;
      rest_.remove_prefix(each.sign.size());
      return &each;
    }
    return nullptr;
  }

  Number binary(int rank, int depth) {
    if (rank > highestRank) return unary(depth);
    auto result = binary(rank + 1, depth);
    while (const auto* found = takeOperator(rank)) result = found->apply(result, binary(rank + 1, depth));
    return result;
  }

  Number unary(int depth) {
    if (depth > deepest) return fail();
    if (take("!")) return unary(depth + 1) == 0 ? 1 : 0;
    if (take("(")) {
      const auto result = choice(depth + 1);
      return take(")") ? result : fail();
    }
    if (take("n")) return n_;
    Number number = 0;
    const auto parsed = std::from_chars(rest_.data(), rest_.data() + rest_.size(), number);
    if (parsed.ec != std::errc{}) return fail();
    rest_.remove_prefix(static_cast<std::size_t>(parsed.ptr - rest_.data()));
    return number;
  }

  std::string_view rest_;
  const Number n_;
  bool isBroken_ = false;
};

std::string_view valueOf(std::string_view header, std::string_view key) {
  const auto at = header.find(key);
  if (at == header.npos) return {};
  auto value = header.substr(at + key.size());
  return value.substr(0, value.find(';'));
}

}  // namespace

PluralRule::PluralRule(std::string_view header) {
  const auto count = valueOf(header, "nplurals=");
  const auto expression = valueOf(header, "plural=");
  std::size_t forms = 0;
  std::from_chars(count.data(), count.data() + count.size(), forms);
  if (forms == 0 || forms > mostForms || !Evaluation(expression, 1).value()) return;
  count_ = forms;
  expression_ = expression;
}

std::size_t PluralRule::formFor(std::int64_t number) const {
  const auto amount =
      number < 0 ? 0 - static_cast<std::uint64_t>(number) : static_cast<std::uint64_t>(number);
  const auto form = Evaluation(expression_, amount).value().value_or(0);
  return form < count_ ? static_cast<std::size_t>(form) : 0;
}

}  // namespace vimbrel
