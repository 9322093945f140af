// SPDX-License-Identifier: Apache-2.0
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "Platform/Linux/ApplicationScope.h"
#include "Platform/Linux/DesktopEntry.h"
#include "Platform/ProcessLine.h"

/// Whatever stands in a desktop entry or a control group's name, what comes out can be shown and is bounded.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const auto entry = parseDesktopEntry(input, "de_AT.UTF-8@euro");
  if (entry && !entry->isHidden) {
    const bool isSound = !entry->command.empty() && entry->command.size() <= 64 &&
                         !entry->localizedName.empty() && entry->localizedName.size() <= 256 &&
                         isValidUtf8(entry->localizedName);
    if (!isSound) std::abort();
  }
  const auto scope = parseApplicationScope(input);
  if (scope && (scope->applicationId.empty() || scope->unit.empty() || scope->mainPid < 0)) std::abort();
  return 0;
}
