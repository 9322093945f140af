// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "Platform/Simulated/SimulatedMachine.h"
#include "Support/FileWatch.h"
#include "Support/Log.h"

namespace vimbrel {

/// Keeps a simulated machine like the file that describes it. A file that cannot be used leaves the machine
/// as the last usable one made it; `SimulatedMachine::problem` then says why. Queue: the main queue.
class SimulatedWorldFile {
 public:
  /// Reads the file once. Both must outlive this object.
  SimulatedWorldFile(std::string path, SimulatedMachine& machine);

  /// Reads the file again whenever it changes.
  void watch(TaskQueue& mainQueue);
  /// Reads the file now.
  void reload();

 private:
  const std::string path_;
  SimulatedMachine& machine_;
  const Logger logger_{"simulation"};
  FileWatch watch_;
};

}  // namespace vimbrel
