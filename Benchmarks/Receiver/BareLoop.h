// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

namespace vimbrel::bench {

/// The least that any server of the hook socket must do: accept, read once, write the success answer, close,
/// in one blocking loop. Calls `ready` once it listens; never returns.
void runBareLoop(const std::string& path, int backlog, const std::function<void()>& ready);

}  // namespace vimbrel::bench
