// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <expected>
#include <string>
#include <string_view>
#include <variant>

#include "Support/AtomicFile.h"
#include "Support/Fd.h"
#include "Support/VimbrelWritePolicy.h"

namespace vimbrel {

/// Why one of the application's own files was not written: the policy forbids it, or the system failed.
struct OwnFileError {
  std::variant<VimbrelWriteSecurityError, FileError> cause;
  [[nodiscard]] std::string text() const;
  /// `errno`, or EPERM for a write that the policy refused.
  [[nodiscard]] int code() const;
};

/// How every file that the application writes is written: the write policy is asked, missing directories are
/// made (mode 0700), then the file is replaced as `replaceFile` does. Any thread.
[[nodiscard]] std::expected<void, OwnFileError> replaceOwnFile(const std::string& path,
                                                               std::string_view contents, mode_t mode = 0600,
                                                               Durability durability = Durability::process);

/// Opens a file to write in place (a journal, a lock, a temporary file), after asking the policy and making
/// missing directories. `flags` as for open(2); O_CLOEXEC and O_NOFOLLOW are added.
[[nodiscard]] std::expected<Fd, OwnFileError> openOwnFile(const std::string& path, int flags,
                                                          mode_t mode = 0600);

}  // namespace vimbrel
