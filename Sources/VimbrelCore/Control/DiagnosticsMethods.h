// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Control/ControlServer.h"
#include "System/Application.h"

namespace vimbrel {

/// "diagnostics": one document about the running system, for support. It is written on a background queue,
/// because the operating system is asked too. All three must outlive the server's last answer.
void addDiagnosticsMethods(ControlServer& server, Application& application, QueueProvider& queues);

}  // namespace vimbrel
