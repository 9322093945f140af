// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/SmallFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <charconv>

#include "Support/Fd.h"

namespace vimbrel {

std::optional<std::string> readSmallFile(const std::string& path) {
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return std::nullopt;
  char buffer[4096];
  const auto length = ::read(file.get(), buffer, sizeof buffer);
  if (length < 0) return std::nullopt;
  std::string text(buffer, static_cast<std::size_t>(length));
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  return text;
}

std::optional<std::int64_t> readSmallNumber(const std::string& path) {
  const auto text = readSmallFile(path);
  if (!text) return std::nullopt;
  std::int64_t value = 0;
  const auto* end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, value);
  if (error != std::errc{} || stop != end) return std::nullopt;
  return value;
}

}  // namespace vimbrel
