// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

struct sd_bus_message;

namespace vimbrel {

/// A bus path of an object, which is another type than a text.
struct BusPath {
  std::string path;
};

/// The value of one option.
using BusOptionValue = std::variant<std::string, std::uint32_t, std::uint8_t, bool>;
/// Options by their names: a dictionary of variants (a{sv}).
using BusOptions = std::vector<std::pair<std::string, BusOptionValue>>;
/// Named things with options of their own: a(sa{sv}).
using BusNamedOptions = std::vector<std::pair<std::string, BusOptions>>;

/// One argument of a bus call.
using BusArgument = std::variant<std::string, std::uint32_t, bool, std::int32_t, BusPath,
                                 std::vector<std::string>, BusOptions, BusNamedOptions>;

/// Appends one argument to a message; negative for a failure, as sd-bus has it.
int appendArgument(sd_bus_message* message, const BusArgument& argument);

}  // namespace vimbrel
