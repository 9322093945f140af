// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <expected>
#include <string>

namespace vimbrel {

/// A write that the policy refused.
struct VimbrelWriteSecurityError {
  std::string path;
  std::string reason;
  /// For the user: what was refused, and why.
  [[nodiscard]] std::string text() const;
  bool operator==(const VimbrelWriteSecurityError&) const = default;
};

/// The one gate that says whether the application may write to a path: never to an agent's, the shell's or
/// the system's files, and otherwise only inside the application's own directories. It is asked before every
/// write; `replaceOwnFile` and `openOwnFile` ask it for their callers. Stateless; any thread.
namespace VimbrelWritePolicy {

/// `path` is judged as the place where the write would end up: without dot segments, with every symbolic link
/// on the way followed, including one whose target does not exist yet. A refusal is logged.
[[nodiscard]] bool mayWrite(const std::string& path);

[[nodiscard]] std::expected<void, VimbrelWriteSecurityError> assertCanWrite(const std::string& path);

}  // namespace VimbrelWritePolicy
}  // namespace vimbrel
