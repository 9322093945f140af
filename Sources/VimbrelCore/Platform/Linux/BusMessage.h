// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Support/Fd.h"

struct sd_bus_message;

namespace vimbrel {

/// A received bus message, read from front to back. A value of another type than the one asked for reads as
/// absent, and then so does everything after it: a message comes from outside.
class BusMessage {
 public:
  /// Shares the message.
  explicit BusMessage(sd_bus_message* message);
  BusMessage(const BusMessage& other) : BusMessage(other.message_) {}
  BusMessage& operator=(const BusMessage&) = delete;
  ~BusMessage();

  [[nodiscard]] std::optional<std::string> readString();
  [[nodiscard]] std::optional<std::string> readObjectPath();
  [[nodiscard]] std::optional<std::uint32_t> readUnsigned();
  [[nodiscard]] std::optional<bool> readBoolean();
  /// The path of the object that sent the message; empty when there is none.
  [[nodiscard]] std::string path() const;
  /// The texts and object paths in a dictionary of variants (a{sv}) by their names; other values are left
  /// out.
  [[nodiscard]] std::map<std::string, std::string> readTexts();
  /// A duplicate of the descriptor, close-on-exec; none when there is none.
  [[nodiscard]] Fd readDescriptor();

  /// Steps into an array ('a'), structure ('r') or variant ('v') with the given contents; false at its end
  /// and when it is another type.
  bool enter(char type, const char* contents);
  void exit();

 private:
  std::optional<std::string> readText(char type);

  sd_bus_message* message_;
};

}  // namespace vimbrel
