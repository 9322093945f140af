// SPDX-License-Identifier: Apache-2.0
// Feeds every file of a corpus directory to a fuzz target, and then each file cut short and with a byte
// changed, so that the ordinary tests keep what fuzzing once found.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void feed(const std::string& input) {
  // A copy of exactly this size, so that a sanitizer sees a read past the end.
  const std::vector<std::uint8_t> bytes(input.begin(), input.end());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !std::filesystem::is_directory(argv[1])) {
    std::fprintf(stderr, "usage: %s CORPUS-DIRECTORY\n", argv[0]);
    return 2;
  }
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::string contents{std::istreambuf_iterator<char>(file), {}};
    feed(contents);
    const std::size_t stride = std::max<std::size_t>(1, contents.size() / 64);
    for (std::size_t at = 0; at < contents.size(); at += stride) {
      feed(contents.substr(0, at));
      std::string changed = contents;
      changed[at] = static_cast<char>(changed[at] ^ 0x55);
      feed(changed);
    }
    ++files;
  }
  std::printf("%zu inputs replayed\n", files);
  return files == 0 ? 1 : 0;
}
