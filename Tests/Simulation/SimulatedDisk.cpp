// SPDX-License-Identifier: Apache-2.0
#include "Simulation/SimulatedDisk.h"

#include <csignal>

namespace vimbrel {

SimulatedDisk::Effect::Effect(bool isFull) {
  if (!isFull) return;
  ::getrlimit(RLIMIT_FSIZE, &before_.emplace());
  handler_ = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit none{0, before_->rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &none);
}

SimulatedDisk::Effect::~Effect() {
  if (!before_) return;
  ::setrlimit(RLIMIT_FSIZE, &*before_);
  std::signal(SIGXFSZ, handler_);
}

}  // namespace vimbrel
