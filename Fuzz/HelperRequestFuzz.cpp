// SPDX-License-Identifier: Apache-2.0
// A peer's bytes, in pieces of every size, through the end-of-message scanner and the decoder.
#include <cstdint>
#include <cstdlib>

#include "DeepHold/DeepHoldProtocolCodec.h"
#include "MessageEnd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  MessageEnd whole;
  const auto verdict = whole.feed(text);
  MessageEnd pieces;
  for (std::size_t at = 0, length = 1; at < size; at += length, length = length % 7 + 1) {
    (void)pieces.feed(text.substr(at, length));
  }
  if (pieces.feed("") != verdict) std::abort();

  const auto request = decodeHelperRequest(text);
  // Every object that can be read has an end that the scanner finds.
  if (request && verdict != MessageEnd::Verdict::complete) {
    // Nesting deeper than any request is refused by the scanner alone.
    if (text.find("[[[[[[[[") == text.npos && text.find('{', text.find('{') + 1) == text.npos) std::abort();
  }
  if (request && decodeHelperRequest(encode(*request)) != request) std::abort();
  (void)decodeHelperResponse(text);
  return 0;
}
