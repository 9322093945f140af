// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <termios.h>

#include <string>
#include <vector>

namespace vimbrel {

/// Takes over the terminal on standard input and output: the alternate screen, no cursor, keys one by one
/// without echo (signals from the keyboard stay). One at a time. The terminal is as before after destruction,
/// after `exit`, and after a crash of the program.
class FullScreen {
 public:
  /// True when standard input and output are terminals that understand the control sequences.
  [[nodiscard]] static bool isPossible();

  FullScreen();
  ~FullScreen();
  FullScreen(const FullScreen&) = delete;
  FullScreen& operator=(const FullScreen&) = delete;

  /// Shows these lines, which fit the terminal's width; those below its end are left out.
  void show(const std::vector<std::string>& lines);
  /// Gives the terminal back, stops the process as the terminal's stop key asks, and takes the terminal again
  /// when the process goes on.
  void suspend();

  /// The keys that were typed, without waiting; absent (false) at the end of input.
  [[nodiscard]] static bool readKeys(std::string& keys);

 private:
  void enter();
  void leave();
};

}  // namespace vimbrel
