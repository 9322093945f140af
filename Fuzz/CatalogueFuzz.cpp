// SPDX-License-Identifier: Apache-2.0
// A catalogue may be damaged, or of a translator's own making: reading it must end, within its bytes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "Catalogue.h"
#include "Retelling.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // A copy of exactly this size, so that a look beyond it is noticed.
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const auto catalogue = vimbrel::Catalogue::overBytes(bytes);
  if (!catalogue) return 0;
  (void)catalogue->find("", "Heat");
  for (const std::int64_t number : {0, 1, 2, 11})
    (void)catalogue->find("sentence", "%1 process detected", number);
  const vimbrel::Retelling retelling(*catalogue);
  (void)retelling.retell("14 % on battery, floor 15 %");
  (void)retelling.retell("2 processes detected · Idle");
  catalogue->forEach(vimbrel::Retelling::context,
                     [&](const vimbrel::Catalogue::Entry& entry) { (void)retelling.retell(entry.english); });
  return 0;
}
