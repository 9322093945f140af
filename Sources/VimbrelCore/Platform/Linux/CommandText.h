// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>

namespace vimbrel {

/// What `ps` shows as a process's command, in a UTF-8 locale and with unlimited width. Any thread.
///
/// Control characters, unprintable characters and malformed UTF-8 become question marks. After a byte that
/// cannot begin a UTF-8 sequence, or a sequence cut off by the end, every further byte outside printable
/// ASCII becomes one.
namespace commandText {

/// The most bytes of `/proc/PID/cmdline` that `ps` reads.
inline constexpr std::size_t maximumArgumentBytes = 131072;

/// From the bytes of `/proc/PID/cmdline`: the arguments joined by spaces. `maximumLength` bounds the result.
/// "?" when the process blanked its arguments.
[[nodiscard]] std::string fromArguments(std::string_view bytes, std::size_t maximumLength);

/// For a process without arguments (kernel threads, zombies): its name in brackets.
enum class Defunct { no, yes };
[[nodiscard]] std::string fromName(std::string_view name, Defunct defunct);

}  // namespace commandText
}  // namespace vimbrel
