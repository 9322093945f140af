// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <string>

namespace vimbrel {

/// An amount of US dollars to the cent, as people read it: "$3.10".
inline std::string dollarText(double amount) {
  char text[340];  // the largest double has 309 digits before its point
  std::snprintf(text, sizeof text, "$%.2f", amount);
  return text;
}

}  // namespace vimbrel
