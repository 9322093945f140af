// SPDX-License-Identifier: Apache-2.0
#include "Support/OutputBuffer.h"

#include <unistd.h>

#include <cerrno>

namespace vimbrel {

OutputBuffer::OutputBuffer(int descriptor) : descriptor_(descriptor), buffer_(1 << 18, '\0') {}

void OutputBuffer::makeRoom(std::size_t count) {
  flush();
  if (count > buffer_.size()) buffer_.resize(count);
}

bool OutputBuffer::flush() {
  std::size_t written = 0;
  while (error_ == 0 && written < used_) {
    const auto count = ::write(descriptor_, buffer_.data() + written, used_ - written);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) {
      error_ = errno;
    } else {
      written += static_cast<std::size_t>(count);
    }
  }
  used_ = 0;
  return error_ == 0;
}

}  // namespace vimbrel
