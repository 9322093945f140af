// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/Helper/LogindSleepSetting.h"

#include <fcntl.h>
#include <poll.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <expected>

namespace vimbrel {
namespace {

// Desktops let users block an inhibitor by its owner and its reason, so these never change.
constexpr const char* what = "sleep:idle:handle-lid-switch";
constexpr const char* who = "Vimbrel";
constexpr const char* why = "AI coding agents are working";

struct Call {
  ~Call() {
    sd_bus_error_free(&error);
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
    sd_bus_flush_close_unref(bus);
  }
  sd_bus* bus = nullptr;
  sd_bus_message* message = nullptr;
  sd_bus_message* reply = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
};

std::expected<Fd, std::string> takeInhibitor() {
  constexpr std::uint64_t timeoutMicroseconds = 800'000;  // A client waits a second for its answer.
  Call call;
  const auto failure = [&](int code) {
    return std::unexpected(call.error.message != nullptr ? std::string(call.error.message)
                                                         : std::string(std::strerror(-code)));
  };
  int code = sd_bus_open_system(&call.bus);
  if (code < 0) return failure(code);
  code =
      sd_bus_message_new_method_call(call.bus, &call.message, "org.freedesktop.login1",
                                     "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "Inhibit");
  if (code < 0) return failure(code);
  code = sd_bus_message_append(call.message, "ssss", what, who, why, "block");
  if (code < 0) return failure(code);
  code = sd_bus_call(call.bus, call.message, timeoutMicroseconds, &call.error, &call.reply);
  if (code < 0) return failure(code);
  int descriptor = -1;
  code = sd_bus_message_read(call.reply, "h", &descriptor);
  if (code < 0) return failure(code);
  Fd inhibitor(::fcntl(descriptor, F_DUPFD_CLOEXEC, 3));  // The message owns the one it brought.
  if (!inhibitor) return failure(-errno);
  return inhibitor;
}

}  // namespace

bool LogindSleepSetting::readSleepDisabled() {
  if (!inhibitor_) return false;
  // The inhibitor is the writing end of a pipe, which fails as soon as logind has dropped the other end.
  pollfd state{inhibitor_.get(), 0, 0};
  return ::poll(&state, 1, 0) == 0;
}

bool LogindSleepSetting::writeSleepDisabled(bool disabled) {
  if (!disabled) {
    inhibitor_.reset();
    logger_.info("Gave the logind inhibitor for %s back", what);
    return true;
  }
  auto inhibitor = takeInhibitor();
  if (!inhibitor) {
    // Repeated every few seconds for as long as a client asks: said once for each reason.
    if (lastFailure_ != inhibitor.error()) {
      logger_.error("logind refuses the inhibitor for %s: %s", what, inhibitor.error().c_str());
    }
    lastFailure_ = inhibitor.error();
    return false;
  }
  inhibitor_ = std::move(*inhibitor);
  lastFailure_.clear();
  logger_.info("Took the logind inhibitor for %s", what);
  return true;
}

}  // namespace vimbrel
