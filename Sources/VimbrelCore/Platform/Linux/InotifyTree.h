// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>
#include <unordered_map>

#include "Platform/TreeChanges.h"
#include "Support/Fd.h"

namespace vimbrel {

/// `TreeChanges` by inotify: one watch for each directory of the tree. A root that does not exist yet is
/// looked for at each call. Where the kernel refuses more watches, what changed is not known and the answer
/// says so.
class InotifyTree final : public TreeChanges {
 public:
  explicit InotifyTree(std::string root);
  [[nodiscard]] std::optional<std::vector<std::string>> take() override;

 private:
  /// Watches a directory and those below it. Files that are there already are added to `found`, when there is
  /// one: they may have been written before the watch began.
  void watch(const std::string& directory, int depth, std::set<std::string>* found);
  /// True when events were lost.
  bool readEvents(std::set<std::string>& changed);
  void start();

  const std::string root_;
  Fd inotify_;
  std::unordered_map<int, std::string> directories_;
  bool incomplete_ = false;
  bool started_ = false;
};

}  // namespace vimbrel
