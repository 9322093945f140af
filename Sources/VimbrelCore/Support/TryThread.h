// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <signal.h>

#include <optional>
#include <system_error>
#include <thread>
#include <utility>

namespace vimbrel {

/// For as long as it lives, threads that are started here begin with every signal blocked that is sent by
/// others: these are for the main thread, which outlives its threads. What a fault of the thread itself
/// raises is not blocked, so that whoever reports crashes can. Any thread.
class SignalsLeftToOthers {
 public:
  SignalsLeftToOthers() {
    sigset_t sent;
    sigfillset(&sent);
    for (const int raised : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
      sigdelset(&sent, raised);
    pthread_sigmask(SIG_BLOCK, &sent, &before_);
  }
  ~SignalsLeftToOthers() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsLeftToOthers(const SignalsLeftToOthers&) = delete;
  SignalsLeftToOthers& operator=(const SignalsLeftToOthers&) = delete;

 private:
  sigset_t before_{};
};

/// A thread that does the work and takes no signals, or none when the system gives none now: users and
/// control groups are limited in processes. Whoever can do without one then does. Any thread.
template <typename Work>
[[nodiscard]] std::optional<std::jthread> tryThread(Work&& work) {
  const SignalsLeftToOthers duringTheStart;
  try {
    return std::jthread(std::forward<Work>(work));
  } catch (const std::system_error&) {
    return std::nullopt;
  }
}

}  // namespace vimbrel
