// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vimbrel {

/// Gathers bytes for a descriptor (which stays the caller's) and writes them in large pieces. The first
/// failed write sticks; what follows is dropped. Any one thread.
class OutputBuffer {
 public:
  explicit OutputBuffer(int descriptor);

  /// Room for at least `count` bytes, to be filled from the front; then `commit` says how far.
  char* reserve(std::size_t count) {
    if (count > buffer_.size() - used_) makeRoom(count);
    return buffer_.data() + used_;
  }
  void commit(const char* end) {
    const auto count = static_cast<std::size_t>(end - (buffer_.data() + used_));
    used_ += count;
    bytes_ += count;
  }
  void append(const char* bytes, std::size_t count) {
    char* target = reserve(count);
    std::char_traits<char>::copy(target, bytes, count);
    commit(target + count);
  }
  void append(std::string_view text) { append(text.data(), text.size()); }

  /// Writes what has been gathered; false when any write has failed.
  bool flush();
  /// `errno` of the first failure, or 0.
  [[nodiscard]] int error() const { return error_; }
  /// Bytes given so far.
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  void makeRoom(std::size_t count);

  int descriptor_;
  std::string buffer_;
  std::size_t used_ = 0;
  std::size_t bytes_ = 0;
  int error_ = 0;
};

}  // namespace vimbrel
