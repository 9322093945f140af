// SPDX-License-Identifier: Apache-2.0
#include "Terminal/TerminalSize.h"

#include <sys/ioctl.h>
#include <unistd.h>

namespace vimbrel {

TerminalSize terminalSize(int descriptor) {
  TerminalSize size;
  winsize window{};
  if (::ioctl(descriptor, TIOCGWINSZ, &window) != 0) return size;
  if (window.ws_col > 0) size.columns = window.ws_col;
  if (window.ws_row > 0) size.rows = window.ws_row;
  return size;
}

std::size_t outputWidth(int descriptor) {
  return ::isatty(descriptor) == 1 ? terminalSize(descriptor).columns : 0;
}

}  // namespace vimbrel
