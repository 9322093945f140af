// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <nlohmann/json.hpp>

#include "Control/RpcError.h"

namespace vimbrel {

/// For the files that implement methods; it needs the whole JSON library, which other headers do without.
class RpcResult : public std::expected<nlohmann::json, RpcError> {
 public:
  using std::expected<nlohmann::json, RpcError>::expected;
};

}  // namespace vimbrel
