// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/BusError.h"

#include <algorithm>
#include <array>

namespace vimbrel {
namespace {

template <std::size_t count>
bool isOneOf(const std::string& name, const std::array<const char*, count>& names) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

bool BusError::isDenied() const {
  return isOneOf(
      name, std::array{"org.freedesktop.DBus.Error.AccessDenied", "org.freedesktop.DBus.Error.AuthFailed",
                       "org.freedesktop.DBus.Error.InteractiveAuthorizationRequired",
                       "org.freedesktop.PolicyKit1.Error.NotAuthorized"});
}

bool BusError::isTimeout() const {
  return isOneOf(name, std::array{"org.freedesktop.DBus.Error.NoReply", "org.freedesktop.DBus.Error.Timeout",
                                  "org.freedesktop.DBus.Error.TimedOut"});
}

bool BusError::isUnknown() const {
  return isOneOf(
      name, std::array{"org.freedesktop.DBus.Error.UnknownMethod", "org.freedesktop.DBus.Error.UnknownObject",
                       "org.freedesktop.DBus.Error.UnknownInterface",
                       "org.freedesktop.DBus.Error.UnknownProperty"});
}

}  // namespace vimbrel
