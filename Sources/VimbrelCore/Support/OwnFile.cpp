// SPDX-License-Identifier: Apache-2.0
#include "Support/OwnFile.h"

#include <fcntl.h>

#include <cerrno>

namespace vimbrel {
namespace {

std::expected<void, OwnFileError> prepare(const std::string& path) {
  if (auto allowed = VimbrelWritePolicy::assertCanWrite(path); !allowed) {
    return std::unexpected(OwnFileError{std::move(allowed.error())});
  }
  const auto slash = path.rfind('/');
  if (slash == 0 || slash == std::string::npos) return {};
  if (auto made = createDirectories(path.substr(0, slash)); !made) {
    return std::unexpected(OwnFileError{std::move(made.error())});
  }
  return {};
}

}  // namespace

std::string OwnFileError::text() const {
  return std::visit([](const auto& error) { return error.text(); }, cause);
}

int OwnFileError::code() const {
  const auto* error = std::get_if<FileError>(&cause);
  return error != nullptr ? error->code : EPERM;
}

std::expected<void, OwnFileError> replaceOwnFile(const std::string& path, std::string_view contents,
                                                 mode_t mode, Durability durability) {
  if (auto prepared = prepare(path); !prepared) return prepared;
  if (auto replaced = replaceFile(path, contents, mode, durability); !replaced) {
    return std::unexpected(OwnFileError{std::move(replaced.error())});
  }
  return {};
}

std::expected<Fd, OwnFileError> openOwnFile(const std::string& path, int flags, mode_t mode) {
  if (auto prepared = prepare(path); !prepared) return std::unexpected(prepared.error());
  Fd file(::open(path.c_str(), flags | O_CLOEXEC | O_NOFOLLOW, mode));
  if (!file) return std::unexpected(OwnFileError{FileError{"open", path, errno}});
  return file;
}

}  // namespace vimbrel
