// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <memory>

#include "Platform/Linux/ProcessTable.h"
#include "Platform/ProcessList.h"

namespace vimbrel {

/// The process list from `/proc`, line for line what `/bin/ps -axo pid,command` prints in a UTF-8 locale.
class ProcProcessList final : public ProcessList, private ProcessTableObserver {
 public:
  explicit ProcProcessList(std::shared_ptr<ProcessTable> table);
  ~ProcProcessList() override;

  [[nodiscard]] ProcessEntries readAll() override;
  [[nodiscard]] ProcessEntries readRelevant(
      const std::function<bool(std::string_view command)>& relevant) override;

 private:
  void processChanged(std::int32_t pid, std::string_view command, ProcReader::Kind kind) override;
  void processGone(std::int32_t pid) override;

  const std::shared_ptr<ProcessTable> table_;
  std::function<bool(std::string_view)> relevant_;
  std::map<std::int32_t, std::vector<ProcessEntry>> found_;  ///< relevant lines by the process that has them
  ProcessEntries entries_;                                   ///< null while out of date
  std::vector<ProcessEntry> lines_;
  std::string line_;
};

}  // namespace vimbrel
