// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/PsProcessList.h"

#include "Platform/ProcessLine.h"
#include "Support/Subprocess.h"

namespace vimbrel {
namespace {

// A hundred thousand processes with long command lines, on a machine that is busy with them.
const SubprocessBounds bounds{.timeout = std::chrono::seconds{20}, .maximumOutputBytes = 256U << 20U};

}  // namespace

ProcessEntries PsProcessList::readAll() {
  const auto result = runProgram("/bin/ps", {"-axo", "pid,command"}, bounds);
  if (!result || result->exitStatus != 0 || !isValidUtf8(result->output)) return nullptr;
  auto entries = std::make_shared<std::vector<ProcessEntry>>();
  appendProcessLines(result->output, *entries);
  return entries;
}

ProcessEntries PsProcessList::readRelevant(const std::function<bool(std::string_view command)>& relevant) {
  const auto all = readAll();
  if (!all) return nullptr;
  auto entries = std::make_shared<std::vector<ProcessEntry>>();
  for (const auto& entry : *all) {
    if (relevant(entry.command)) entries->push_back(entry);
  }
  if (!last_ || *last_ != *entries) last_ = std::move(entries);
  return last_;
}

}  // namespace vimbrel
