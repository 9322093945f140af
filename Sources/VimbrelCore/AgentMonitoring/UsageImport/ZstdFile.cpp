// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/ZstdFile.h"

#include <fcntl.h>
#include <unistd.h>
#include <zstd.h>

#include <cerrno>
#include <vector>

#include "Support/Fd.h"

namespace vimbrel {

struct ZstdFile::State {
  Fd file;
  std::unique_ptr<ZSTD_DStream, std::size_t (*)(ZSTD_DStream*)> stream{ZSTD_createDStream(),
                                                                       ZSTD_freeDStream};
  std::vector<char> compressed = std::vector<char>(ZSTD_DStreamInSize());
  ZSTD_inBuffer input{nullptr, 0, 0};
  bool atEnd = false;
  bool frameOpen = false;
};

ZstdFile::ZstdFile(const std::string& path) : state_(std::make_unique<State>()) {
  state_->file = Fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  // A frame that asks for a larger window than any rollout needs would only cost memory.
  constexpr int largestWindowLog = 24;
  ZSTD_DCtx_setParameter(state_->stream.get(), ZSTD_d_windowLogMax, largestWindowLog);
}

ZstdFile::~ZstdFile() = default;

long ZstdFile::read(char* memory, std::size_t size) {
  if (!state_->file || !state_->stream) return -1;
  ZSTD_outBuffer output{memory, size, 0};
  while (output.pos == 0) {
    if (state_->input.pos == state_->input.size && !state_->atEnd) {
      const auto got = ::read(state_->file.get(), state_->compressed.data(), state_->compressed.size());
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) return -1;
      state_->atEnd = got == 0;
      state_->input = {state_->compressed.data(), static_cast<std::size_t>(got), 0};
    }
    if (state_->atEnd && state_->input.pos == state_->input.size) {
      // A file that ends inside a frame was cut off.
      return state_->frameOpen ? -1 : 0;
    }
    const auto left = ZSTD_decompressStream(state_->stream.get(), &output, &state_->input);
    if (ZSTD_isError(left) != 0U) return -1;
    state_->frameOpen = left != 0;
  }
  return static_cast<long>(output.pos);
}

}  // namespace vimbrel
