// SPDX-License-Identifier: Apache-2.0
#include "Support/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "Support/Fd.h"

namespace vimbrel {
namespace {

std::unexpected<FileError> failure(std::string operation, const std::string& path, int code) {
  return std::unexpected(FileError{std::move(operation), path, code});
}

std::string directoryOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

int writeAll(int descriptor, std::string_view contents) {
  while (!contents.empty()) {
    const auto written = ::write(descriptor, contents.data(), contents.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    contents.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

/// Not an error to show: this file system or sandbox has no files without a name.
const FileError notPossible{"", "", EOPNOTSUPP};

/// A file that is being written beside the one that it will replace.
struct NewFile {
  Fd file;
  std::string name;  ///< empty while it has none
};
using MakeNewFile = std::expected<NewFile, FileError> (*)(const std::string& path);

std::expected<NewFile, FileError> unnamedFileBeside(const std::string& path) {
  Fd file(::open(directoryOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
  if (file) return NewFile{std::move(file), {}};
  if (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL) return std::unexpected(notPossible);
  return failure("create a temporary file for", path, errno);
}

std::expected<NewFile, FileError> namedFileBeside(const std::string& path) {
  std::string name = path + ".XXXXXX";
  Fd file(::mkostemp(name.data(), O_CLOEXEC));
  if (!file) return failure("create a temporary file for", path, errno);
  return NewFile{std::move(file), std::move(name)};
}

/// Gives the file its name, whatever a killed process left there; 0 or the error.
int linkAs(const std::string& name, int descriptor) {
  const auto source = "/proc/self/fd/" + std::to_string(descriptor);
  for (int attempt = 0; attempt < 100; ++attempt) {
    if (::linkat(AT_FDCWD, source.c_str(), AT_FDCWD, name.c_str(), AT_SYMLINK_FOLLOW) == 0) return 0;
    if (errno != EEXIST) return errno;
    // It belongs to a process that was killed here, or to another writer, which then begins again.
    if (::unlink(name.c_str()) != 0 && errno != ENOENT) return errno;
  }
  return EEXIST;
}

std::expected<void, FileError> replaceOnce(MakeNewFile make, const std::string& path,
                                           std::string_view contents, mode_t mode, Durability durability) {
  auto made = make(path);
  if (!made) return std::unexpected(std::move(made.error()));
  auto& [file, name] = *made;
  const auto giveUp = [&, &name = name](const char* operation, int code) {
    if (!name.empty()) ::unlink(name.c_str());
    return failure(operation, path, code);
  };
  if (const int code = writeAll(file.get(), contents)) return giveUp("write", code);
  if (::fchmod(file.get(), mode) != 0) return giveUp("set the permissions of", errno);
  if (durability == Durability::machine && ::fdatasync(file.get()) != 0) return giveUp("flush", errno);
  if (name.empty()) {
    if (linkAs(path + ".new", file.get()) != 0) return std::unexpected(notPossible);
    name = path + ".new";
  }
  // Some file systems report a full disk only here.
  if (::close(file.release()) != 0) return giveUp("write", errno);
  if (::rename(name.c_str(), path.c_str()) != 0) return giveUp("replace", errno);
  return {};
}

std::expected<void, FileError> replaceThrough(MakeNewFile make, const std::string& path,
                                              std::string_view contents, mode_t mode, Durability durability) {
  for (int attempt = 0;; ++attempt) {
    auto replaced = replaceOnce(make, path, contents, mode, durability);
    // Another writer took the name away between the two steps: these contents may have reached nobody.
    const bool lostItsName =
        !replaced && replaced.error().code == ENOENT && replaced.error().operation == "replace";
    if (!lostItsName || attempt == 100) return replaced;
  }
}

}  // namespace

std::string FileError::text() const {
  return "cannot " + operation + " " + path + ": " + std::strerror(code);
}

std::expected<void, FileError> replaceFile(const std::string& path, std::string_view contents, mode_t mode,
                                           Durability durability) {
  // Until it is whole the new file has no name, so that a killed process leaves nothing of it behind.
  auto replaced = replaceThrough(unnamedFileBeside, path, contents, mode, durability);
  if (!replaced && replaced.error() == notPossible) {
    replaced = replaceThrough(namedFileBeside, path, contents, mode, durability);
  }
  if (!replaced || durability == Durability::process) return replaced;
  const Fd directory(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory || ::fsync(directory.get()) != 0) return failure("flush the directory of", path, errno);
  return {};
}

std::expected<std::string, FileError> readFile(const std::string& path, std::size_t maximumBytes) {
  // Without O_NONBLOCK, opening a pipe that somebody left in the file's place would wait for a writer.
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!file) return failure("open", path, errno);
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) return failure("examine", path, errno);
  if (S_ISDIR(status.st_mode)) return failure("read", path, EISDIR);
  if (!S_ISREG(status.st_mode)) return failure("read", path, EINVAL);
  std::string contents;
  contents.resize(static_cast<std::size_t>(status.st_size) + 1);
  std::size_t length = 0;
  for (;;) {
    if (length > maximumBytes) return failure("read", path, EFBIG);
    if (length == contents.size()) contents.resize(contents.size() * 2);
    const auto count = ::read(file.get(), contents.data() + length, contents.size() - length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failure("read", path, errno);
    if (count == 0) break;
    length += static_cast<std::size_t>(count);
  }
  contents.resize(length);
  return contents;
}

std::expected<void, FileError> createDirectories(const std::string& path, mode_t mode) {
  for (std::size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const auto part = path.substr(0, end);
    if (!part.empty() && ::mkdir(part.c_str(), mode) != 0) {
      const int code = errno;
      struct stat status{};
      const bool isDirectory = ::stat(part.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
      if (!isDirectory) return failure("create the directory", part, code == EEXIST ? ENOTDIR : code);
    }
    if (end == std::string::npos) return {};
  }
}

}  // namespace vimbrel
