// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace vimbrel {

/// A fresh directory with a short path (socket paths are bounded), removed with its contents.
class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    char pattern[] = "/tmp/vimbrel-XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~TemporaryDirectory() {
    std::error_code ignored;  // Nothing can be done about it, and no test depends on it.
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

}  // namespace vimbrel
