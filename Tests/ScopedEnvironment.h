// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>

namespace vimbrel {

/// Variables of the environment that are others, or absent, for as long as this lives. TZ takes effect at
/// once.
class ScopedEnvironment {
 public:
  struct Variable {
    const char* name;
    std::optional<std::string> value;  ///< none: absent
  };
  ScopedEnvironment(std::initializer_list<Variable> variables) {
    for (const auto& [name, value] : variables) set(name, value);
  }
  ~ScopedEnvironment() {
    for (const auto& [name, value] : before_) place(name, value);
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

  void set(const std::string& name, const std::optional<std::string>& value) {
    const char* const before = std::getenv(name.c_str());
    before_.try_emplace(name, before == nullptr ? std::nullopt : std::optional<std::string>(before));
    place(name, value);
  }

 private:
  static void place(const std::string& name, const std::optional<std::string>& value) {
    value ? ::setenv(name.c_str(), value->c_str(), 1) : ::unsetenv(name.c_str());
    ::tzset();
  }

  std::map<std::string, std::optional<std::string>> before_;
};

}  // namespace vimbrel
