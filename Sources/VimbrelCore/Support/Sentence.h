// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace vimbrel {

/// English sentences that people read in the end, but that cross the control socket, a port or a file before
/// they do. They stay English there; `retell` gives a surface's reader the user's language, and knows them by
/// these marks: translation tools collect every literal that is given to `sentence` and `sentenceCount`.

/// A whole sentence, or a part that stands for itself, such as "on".
[[nodiscard]] constexpr const char* sentence(const char* english) { return english; }

/// A sentence with "%1", "%2", … replaced. Values may be sentences too; marks in them are not replaced again.
[[nodiscard]] std::string sentence(const char* pattern, std::initializer_list<std::string_view> values);

/// One of two sentences by number. "%1" is the number, `values` begin with "%2".
[[nodiscard]] std::string sentenceCount(std::int64_t count, const char* one, const char* many,
                                        std::initializer_list<std::string_view> values = {});

/// The pattern with the values in the places of its marks; a mark without a value stays.
[[nodiscard]] std::string filledIn(std::string_view pattern, const std::string_view* values,
                                   std::size_t count);

}  // namespace vimbrel
