// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

namespace vimbrel {

/// A file compressed by Zstandard, read as a stream.
class ZstdFile {
 public:
  explicit ZstdFile(const std::string& path);
  ~ZstdFile();
  /// Fills the memory with what comes next: the number of bytes, 0 at the end, less than 0 when the file
  /// cannot be read or is damaged.
  long read(char* memory, std::size_t size);

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace vimbrel
