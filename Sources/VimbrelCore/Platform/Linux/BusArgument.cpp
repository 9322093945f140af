// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/BusArgument.h"

#include <systemd/sd-bus.h>

#include <array>

namespace vimbrel {
namespace {

/// Appends values one after the other; the first failure ends it and is the result.
class Appender {
 public:
  explicit Appender(sd_bus_message* message) : message_(message) {}
  [[nodiscard]] int result() const { return result_; }

  void operator()(const std::string& text) { basic('s', text.c_str()); }
  void operator()(const BusPath& path) { basic('o', path.path.c_str()); }
  void operator()(std::uint32_t number) { basic('u', &number); }
  void operator()(std::int32_t number) { basic('i', &number); }
  void operator()(std::uint8_t byte) { basic('y', &byte); }
  void operator()(bool value) {
    const int flag = value ? 1 : 0;
    basic('b', &flag);
  }
  void operator()(const std::vector<std::string>& texts) {
    inside('a', "s", [&] {
      for (const auto& text : texts) (*this)(text);
    });
  }
  void operator()(const BusOptions& options) {
    inside('a', "{sv}", [&] {
      for (const auto& [name, value] : options) {
        inside('e', "sv", [&] {
          (*this)(name);
          inside('v', typeOf(value), [&] { std::visit([&](const auto& one) { (*this)(one); }, value); });
        });
      }
    });
  }
  void operator()(const BusNamedOptions& all) {
    inside('a', "(sa{sv})", [&] {
      for (const auto& [name, options] : all) {
        inside('r', "sa{sv}", [&] {
          (*this)(name);
          (*this)(options);
        });
      }
    });
  }

 private:
  static const char* typeOf(const BusOptionValue& value) {
    constexpr std::array types{"s", "u", "y", "b"};  // in the order of the variant's alternatives
    return types.at(value.index());
  }
  void basic(char type, const void* value) {
    if (result_ >= 0) result_ = sd_bus_message_append_basic(message_, type, value);
  }
  template <typename Contents>
  void inside(char type, const char* contents, Contents append) {
    if (result_ >= 0) result_ = sd_bus_message_open_container(message_, type, contents);
    if (result_ < 0) return;
    append();
    if (result_ >= 0) result_ = sd_bus_message_close_container(message_);
  }

  sd_bus_message* message_;
  int result_ = 0;
};

}  // namespace

int appendArgument(sd_bus_message* message, const BusArgument& argument) {
  Appender appender(message);
  std::visit([&](const auto& value) { appender(value); }, argument);
  return appender.result();
}

}  // namespace vimbrel
