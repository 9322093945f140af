// SPDX-License-Identifier: Apache-2.0
#include "Run/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "Support/OwnFile.h"

namespace vimbrel {
namespace {

std::unexpected<InstanceLockError> failure(const std::string& path, int code) {
  return std::unexpected(InstanceLockError{std::nullopt, path + ": " + std::strerror(code)});
}

std::optional<long> recordedHolder(int descriptor) {
  char text[32] = {};
  if (::pread(descriptor, text, sizeof text - 1, 0) <= 0) return std::nullopt;
  const long pid = std::strtol(text, nullptr, 10);
  return pid > 0 ? std::optional(pid) : std::nullopt;
}

}  // namespace

std::expected<InstanceLock, InstanceLockError> InstanceLock::acquire(const std::string& path) {
  auto opened = openOwnFile(path, O_RDWR | O_CREAT);
  if (!opened) return std::unexpected(InstanceLockError{std::nullopt, opened.error().text()});
  Fd file = *std::move(opened);
  if (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return failure(path, errno);
    return std::unexpected(InstanceLockError{recordedHolder(file.get()), "another process has the lock"});
  }
  const auto pid = std::to_string(::getpid()) + "\n";
  // The number is for the message of a second instance only; the lock itself is what counts.
  if (::ftruncate(file.get(), 0) != 0 || ::pwrite(file.get(), pid.data(), pid.size(), 0) < 0) {
    return failure(path, errno);
  }
  return InstanceLock(std::move(file));
}

}  // namespace vimbrel
