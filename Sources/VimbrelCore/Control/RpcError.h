// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// The codes of JSON-RPC 2.0 (https://www.jsonrpc.org/specification, section 5.1), and two of our own from
/// the range that it leaves to servers.
enum class RpcFault : int {
  parseError = -32700,
  invalidRequest = -32600,
  methodNotFound = -32601,
  invalidParams = -32602,
  internalError = -32603,
  operationFailed = -32000,     ///< the request was right, but carrying it out failed
  tooManyConnections = -32001,  ///< sent once, before the connection is closed
};

/// Why a request was not carried out; `message` is a sentence for people.
struct RpcError {
  RpcFault fault = RpcFault::internalError;
  std::string message;
  bool operator==(const RpcError&) const = default;
};

/// What a method gives: a JSON value or an `RpcError`. Complete in RpcResult.h.
class RpcResult;

}  // namespace vimbrel
