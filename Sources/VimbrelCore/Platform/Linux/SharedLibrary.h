// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <dlfcn.h>

#include <memory>

namespace vimbrel {

/// A library that is loaded when it is needed first: a machine without a desktop then neither needs it nor
/// pays for it. Libraries once loaded stay loaded. Any thread.
class SharedLibrary {
 public:
  explicit SharedLibrary(const char* name) : handle_(::dlopen(name, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE)) {}

  [[nodiscard]] explicit operator bool() const { return handle_ != nullptr && !isIncomplete_; }

  /// The library's function of this name, null without it; the library counts as missing then.
  template <typename Function>
  [[nodiscard]] Function* function(const char* name) {
    auto* found = handle_ == nullptr ? nullptr : reinterpret_cast<Function*>(::dlsym(handle_.get(), name));
    if (found == nullptr) isIncomplete_ = true;
    return found;
  }

 private:
  struct Close {
    void operator()(void* handle) const { ::dlclose(handle); }
  };
  std::unique_ptr<void, Close> handle_;
  bool isIncomplete_ = false;
};

}  // namespace vimbrel
