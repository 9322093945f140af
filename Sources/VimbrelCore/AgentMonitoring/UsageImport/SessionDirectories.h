// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace vimbrel {

/// Which directory each session works in, as the live readings and the hooks tell it before the index of the
/// import has it. Any thread.
class SessionDirectories {
 public:
  using Map = std::map<std::string, std::string, std::less<>>;

  /// The first directory that is heard of a session stands.
  void hear(std::string_view session, std::string_view directory);
  [[nodiscard]] std::optional<std::string> directoryOf(std::string_view session) const;
  [[nodiscard]] std::size_t size() const;
  /// Gives everything away.
  [[nodiscard]] Map take();

 private:
  mutable std::mutex lock_;
  Map heard_;
};

}  // namespace vimbrel
