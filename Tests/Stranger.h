// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

namespace vimbrel {

/// Runs `body` in a process of another user without any of our groups; its result becomes the exit status.
/// For root only.
inline int asUser(uid_t user, gid_t group, const std::function<int()>& body) {
  const pid_t child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(group) != 0 || ::setuid(user) != 0) ::_exit(99);
    ::_exit(body());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 98;
}

/// Somebody on this machine who is nobody in particular.
inline constexpr uid_t stranger = 65534;
inline constexpr gid_t strangersGroup = 65534;

}  // namespace vimbrel
