// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string_view>

namespace vimbrel {

/// The rule by which the application-support directory is found, shared by `directories` and by the relay,
/// which has neither `std::string` nor the password database's services. Appends to anything with
/// `append(const char*, std::size_t)`: `$XDG_DATA_HOME` (`dataHome`), else ".local/share" below the home
/// directory, which is `$HOME` (`home`), else what `appendHomeOfUser(sink)` appends. A variable that is null,
/// empty or not an absolute path counts as unset.
template <typename Sink, typename AppendHomeOfUser>
void appendApplicationSupport(Sink& sink, const char* dataHome, const char* home,
                              const AppendHomeOfUser& appendHomeOfUser) {
  const auto appendText = [&](std::string_view text) { sink.append(text.data(), text.size()); };
  const auto isAbsolute = [](const char* value) { return value != nullptr && value[0] == '/'; };
  if (isAbsolute(dataHome)) {
    appendText(dataHome);
    return;
  }
  if (isAbsolute(home)) {
    appendText(home);
  } else {
    appendHomeOfUser(sink);
  }
  appendText("/.local/share");
}

}  // namespace vimbrel
