// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <string_view>

#include "FixedBuffer.h"
#include "Support/Fd.h"

namespace vimbrel {

/// Appends the home directory that the password file at `path` gives for `user`, or "/" when it gives none:
/// what the application finds for every user of that file. The C library's own look-up would load name
/// services at run time, which a static program cannot rely on; users whom only a directory service knows
/// need
/// `$HOME`.
template <typename Sink>
void appendHomeFromPasswordFile(Sink& sink, const char* path, uid_t user) {
  // name:password:uid:gid:comment:home:shell
  constexpr int userField = 2;
  constexpr int homeField = 5;
  int field = 0;
  bool isUser = false;
  std::uint64_t number = 0;
  FixedBuffer<4096> home;
  const Fd file(::open(path, O_RDONLY | O_CLOEXEC));
  char chunk[4096];
  for (ssize_t count = 0; (count = ::read(file.get(), chunk, sizeof chunk)) > 0;) {
    for (const char c : std::string_view(chunk, static_cast<std::size_t>(count))) {
      if (c == ':' || c == '\n') {
        if (field == userField) isUser = number == user;
        if (field == homeField && isUser && home.text().starts_with('/') && !home.overflowed()) {
          sink.append(home.text().data(), home.text().size());
          return;
        }
        field = c == '\n' ? 0 : field + 1;
        if (c == '\n') number = 0;
      } else if (field == userField) {
        // Anything that is not a number of a user becomes one that no user has.
        number = c >= '0' && c <= '9' && number < 0x1'0000'0000U
                     ? number * 10 + static_cast<unsigned>(c - '0')
                     : 0x1'0000'0000U;
      } else if (field == homeField && isUser) {
        home.append(&c, 1);
      }
    }
  }
  sink.append("/", 1);
}

}  // namespace vimbrel
