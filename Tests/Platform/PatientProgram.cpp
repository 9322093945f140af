// SPDX-License-Identifier: Apache-2.0
// Shows its arguments in the process list and waits. With "--blank" as the last, blanks them first.
#include <sys/prctl.h>
#include <unistd.h>

#include <cstring>
#include <string_view>

int main(int argc, char** argv) {
  if (argc > 1 && std::string_view(argv[argc - 1]) == "--blank") {
    char* end = argv[argc - 1] + std::strlen(argv[argc - 1]);
    std::memset(argv[0], 0, static_cast<std::size_t>(end - argv[0]));
    prctl(PR_SET_NAME, "blanked");
  }
  prctl(PR_SET_PDEATHSIG, 9);
  (void)!write(STDOUT_FILENO, "r", 1);
  for (;;) pause();
}
