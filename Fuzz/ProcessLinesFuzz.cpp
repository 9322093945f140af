// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Platform/Linux/CommandText.h"
#include "Platform/ProcessLine.h"

/// Whatever bytes a process shows become well-formed text within the bound, and lines that read back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  std::vector<ProcessEntry> entries;
  appendProcessLines(input, entries);

  constexpr std::size_t bound = 100;
  const auto command = commandText::fromArguments(input, bound);
  const auto name = commandText::fromName(input.substr(0, 64), commandText::Defunct::yes);
  if (command.empty() || command.size() > bound || !isValidUtf8(command) || !isValidUtf8(name)) std::abort();

  entries.clear();
  appendProcessLines("42 " + command, entries);
  if (!entries.empty() && entries.front().command.size() > command.size()) std::abort();
  return 0;
}
