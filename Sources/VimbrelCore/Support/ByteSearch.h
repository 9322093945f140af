// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstring>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace vimbrel {

/// True when `needle` (two bytes or more) occurs in `text`. The C library's search is made for needles that
/// almost occur; logs are mostly text in which nothing comes close, and there comparing the needle's first
/// and last byte sixteen places at a time is several times faster.
inline bool occursIn(std::string_view text, std::string_view needle) {
  const std::size_t length = needle.size();
  if (text.size() < length) return false;
  std::size_t at = 0;
#if defined(__SSE2__)
  const auto first = _mm_set1_epi8(needle.front());
  const auto last = _mm_set1_epi8(needle.back());
  for (; at + length - 1 + sizeof(__m128i) <= text.size(); at += sizeof(__m128i)) {
    const auto* const place = text.data() + at;
    const auto starts = _mm_loadu_si128(reinterpret_cast<const __m128i*>(place));
    const auto ends = _mm_loadu_si128(reinterpret_cast<const __m128i*>(place + length - 1));
    auto both = static_cast<unsigned>(
        _mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(starts, first), _mm_cmpeq_epi8(ends, last))));
    for (; both != 0; both &= both - 1) {
      if (std::memcmp(place + __builtin_ctz(both), needle.data(), length) == 0) return true;
    }
  }
#endif
  return ::memmem(text.data() + at, text.size() - at, needle.data(), length) != nullptr;
}

}  // namespace vimbrel
