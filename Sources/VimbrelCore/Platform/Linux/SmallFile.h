// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vimbrel {

/// The text of a small file of the kernel, at most 4 KiB of it, without its trailing white space; absent when
/// it cannot be read.
[[nodiscard]] std::optional<std::string> readSmallFile(const std::string& path);

/// The whole number that such a file holds; absent when it holds anything else.
[[nodiscard]] std::optional<std::int64_t> readSmallNumber(const std::string& path);

}  // namespace vimbrel
