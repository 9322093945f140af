// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/BusMessage.h"

#include <fcntl.h>
#include <systemd/sd-bus.h>

namespace vimbrel {

BusMessage::BusMessage(sd_bus_message* message) : message_(sd_bus_message_ref(message)) {}

BusMessage::~BusMessage() { sd_bus_message_unref(message_); }

std::optional<std::string> BusMessage::readText(char type) {
  const char* text = nullptr;
  if (sd_bus_message_read_basic(message_, type, &text) <= 0) return std::nullopt;
  return text;
}

std::optional<std::string> BusMessage::readString() { return readText('s'); }
std::optional<std::string> BusMessage::readObjectPath() { return readText('o'); }

std::optional<std::uint32_t> BusMessage::readUnsigned() {
  std::uint32_t value = 0;
  if (sd_bus_message_read_basic(message_, 'u', &value) <= 0) return std::nullopt;
  return value;
}

std::optional<bool> BusMessage::readBoolean() {
  int value = 0;
  if (sd_bus_message_read_basic(message_, 'b', &value) <= 0) return std::nullopt;
  return value != 0;
}

std::string BusMessage::path() const {
  const char* path = sd_bus_message_get_path(message_);
  return path == nullptr ? "" : path;
}

std::map<std::string, std::string> BusMessage::readTexts() {
  std::map<std::string, std::string> texts;
  if (!enter('a', "{sv}")) return texts;
  while (enter('e', "sv")) {
    const auto name = readString();
    bool isRead = false;
    for (const char type : {'s', 'o'}) {
      const char contents[] = {type, 0};
      if (!name || isRead || !enter('v', contents)) continue;
      if (auto text = readText(type)) texts[*name] = *std::move(text);
      exit();
      isRead = true;
    }
    if (!isRead && sd_bus_message_skip(message_, "v") < 0) return texts;
    exit();
  }
  exit();
  return texts;
}

Fd BusMessage::readDescriptor() {
  int borrowed = -1;
  if (sd_bus_message_read_basic(message_, 'h', &borrowed) <= 0) return Fd{};
  return Fd{::fcntl(borrowed, F_DUPFD_CLOEXEC, 3)};
}

bool BusMessage::enter(char type, const char* contents) {
  return sd_bus_message_enter_container(message_, type, contents) > 0;
}

void BusMessage::exit() { sd_bus_message_exit_container(message_); }

}  // namespace vimbrel
