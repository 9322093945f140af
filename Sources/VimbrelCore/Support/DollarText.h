// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

namespace vimbrel {

/// An amount of US dollars to the cent, as people read it: "$3.10", and "<$0.01" for what would round to
/// nothing and is something.
inline std::string dollarText(double amount) {
  if (amount > 0 && amount < 0.005) return "<$0.01";
  char text[340];  // the largest double has 309 digits before its point
  std::snprintf(text, sizeof text, "$%.2f", amount);
  return text;
}

}  // namespace vimbrel
