// SPDX-License-Identifier: Apache-2.0
// Reads every file below a directory into one buffer, which it uses again and again, and does nothing with
// it: what a look at the same bytes costs at the least.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::vector<char> buffer(std::size_t{256} << 10U);
  unsigned long long total = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[1])) {
    if (!entry.is_regular_file()) continue;
    const int file = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    for (ssize_t got = 0; (got = ::read(file, buffer.data(), buffer.size())) > 0;) {
      total += static_cast<unsigned long long>(got);
    }
    ::close(file);
  }
  std::printf("%llu bytes\n", total);
  return 0;
}
