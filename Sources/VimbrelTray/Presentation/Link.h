// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>

#include "Presentation/PublishedState.h"

namespace vimbrel::desktop {

/// How the desktop stands to the background process.
enum class LinkStatus : std::uint8_t {
  connecting,  ///< not known yet; at the start only
  connected,   ///< its state is here and kept up to date
  absent,      ///< nobody serves the control socket
  starting,    ///< absent, but it was started and should answer in a moment
};

/// Everything that the surfaces draw from.
struct Situation {
  LinkStatus link = LinkStatus::connecting;
  std::optional<PublishedState> state;  ///< present exactly while connected
  bool operator==(const Situation&) const = default;
};

}  // namespace vimbrel::desktop
