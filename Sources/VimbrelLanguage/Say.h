// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

namespace vimbrel {

class Catalogue;

/// What people read, in their language. Every text of the surfaces passes here as a literal, so that
/// translation tools find it (`./dev translations`); without a catalogue, or a translation in it, it is the
/// English that stands in the call. Texts are made at the moment they are shown. Any thread.

/// A text; "%1", "%2", … are replaced by the values, in which marks are not replaced again.
[[nodiscard]] std::string say(const char* english, std::initializer_list<std::string_view> values = {});

/// The text that goes with a number. "%1" is the number, `values` begin with "%2". A text of which "%1" is
/// missing is for one only.
[[nodiscard]] std::string sayCount(std::int64_t count, const char* one, const char* many,
                                   std::initializer_list<std::string_view> values = {});

/// A text that another language has several words for, told apart by where it stands ("weekday", "Mon").
[[nodiscard]] std::string sayAs(const char* context, const char* english,
                                std::initializer_list<std::string_view> values = {});

/// Marks a literal in a table, which is given to `say` when it is shown.
[[nodiscard]] constexpr const char* toSay(const char* english) { return english; }

/// A finished sentence of the application (`Support/Sentence.h`), a library or the system; what is not known
/// stays as it is.
[[nodiscard]] std::string retell(std::string_view english);

/// While it lives, its thread speaks English: for what machines read, or keep.
class InEnglish {
 public:
  InEnglish();
  ~InEnglish();
  InEnglish(const InEnglish&) = delete;
  InEnglish& operator=(const InEnglish&) = delete;
};

/// Speaks the catalogue's language from now on; English with none. Before other threads make texts.
void speak(std::shared_ptr<const Catalogue> catalogue);

}  // namespace vimbrel
