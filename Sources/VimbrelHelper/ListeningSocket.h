// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <expected>
#include <string>

#include "HelperOptions.h"
#include "Support/Fd.h"

namespace vimbrel {

struct ListeningSocket {
  Fd socket;
  std::string path;
  gid_t group = 0;     ///< that owns the socket
  bool isOurs = true;  ///< made here, so removed here; otherwise systemd's
};

/// The socket that systemd hands over, if there is one, else a new one at the options' path: for everybody in
/// system mode, where each peer's rights are examined, for the owner in user mode. The error is a sentence.
[[nodiscard]] std::expected<ListeningSocket, std::string> openListeningSocket(const HelperOptions& options);

}  // namespace vimbrel
