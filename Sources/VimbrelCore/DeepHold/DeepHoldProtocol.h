// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "Support/Instant.h"

namespace vimbrel {

/// The most bytes that a request or a response on the helper's socket may have. Neither is framed: the end of
/// a message is the end of its JSON object.
inline constexpr std::size_t maximumHelperMessageBytes = 8192;

/// What a client asks of the helper. `uninstall` is reserved for removing it; the application never sends it.
enum class HelperCommand : std::uint8_t { status, acquire, renew, release, uninstall };

/// One request; one connection carries one request and one response.
struct HelperRequest {
  HelperCommand command = HelperCommand::status;
  std::optional<std::string> leaseId;  ///< chosen by the client, opaque to the helper
  std::optional<double> ttlSeconds;    ///< lifetime from now, with `acquire` and `renew`
  bool operator==(const HelperRequest&) const = default;
};

/// How the closed-lid protection stands.
struct DeepSleepStatus {
  bool isHelperInstalled = false;
  bool isDeepHoldActive = false;  ///< a lease holds sleep disabled
  std::optional<std::string> activeLeaseId;
  std::optional<Instant> leaseExpiresAt;
  std::optional<bool> originalSleepDisabledState;  ///< before the helper first changed it
  bool currentSystemSleepDisabled = false;         ///< the setting as read now
  bool operator==(const DeepSleepStatus&) const = default;
};

struct HelperResponse {
  bool ok = false;  ///< whether the request was carried out
  std::optional<DeepSleepStatus> status;
  std::optional<std::string> error;  ///< for people; why `ok` is false
  bool operator==(const HelperResponse&) const = default;
};

}  // namespace vimbrel
