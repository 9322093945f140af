// SPDX-License-Identifier: Apache-2.0
// Any bytes as the settings file: reading leaves them alone, and a write loses nothing and can be read back.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "Support/AtomicFile.h"
#include "Support/Log.h"
#include "System/FilePreferences.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace vimbrel;
  logging::setSink([](auto...) {});
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  char directory[] = "/tmp/vimbrel-fuzz-XXXXXX";
  require(::mkdtemp(directory) != nullptr);
  const auto path = std::string(directory) + "/settings.json";
  require(replaceFile(path, bytes).has_value());

  FilePreferences preferences(path, settingDescriptions());
  for (const auto& setting : settingDescriptions()) (void)preferences.value(setting.key, setting.type);
  preferences.reload();
  require(readFile(path) == bytes);

  const auto before = preferences.value("onlyOnAC", PreferenceType::boolean);
  const Preferences::Change change{"batteryFloorPercent", std::int64_t{33}};
  require(preferences.store(std::span(&change, 1)).has_value());
  const FilePreferences again(path, settingDescriptions());
  require(again.value("batteryFloorPercent", PreferenceType::integer) == PreferenceValue{std::int64_t{33}});
  require(again.value("onlyOnAC", PreferenceType::boolean) == before);
  const auto aside = readFile(path + ".unreadable-1");
  require(!aside || *aside == bytes);

  std::filesystem::remove_all(directory);
  return 0;
}
