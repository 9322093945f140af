// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// Why one of our own documents cannot be read: a sentence that names the key.
struct DecodeError {
  std::string text;
  bool operator==(const DecodeError&) const = default;
};

}  // namespace vimbrel
