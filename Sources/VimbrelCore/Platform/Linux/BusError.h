// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace vimbrel {

/// What a service, or the bus itself, answered instead of doing what it was asked.
struct BusError {
  std::string name;     ///< "org.freedesktop.DBus.Error.AccessDenied"
  std::string message;  ///< for people

  [[nodiscard]] bool isDenied() const;
  [[nodiscard]] bool isTimeout() const;
  /// The service does not have that method, object or property.
  [[nodiscard]] bool isUnknown() const;
};

}  // namespace vimbrel
