// SPDX-License-Identifier: Apache-2.0
#include "Support/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

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

}  // namespace

std::string FileError::text() const {
  return "cannot " + operation + " " + path + ": " + std::strerror(code);
}

std::expected<void, FileError> replaceFile(const std::string& path, std::string_view contents, mode_t mode,
                                           Durability durability) {
  std::string temporary = path + ".XXXXXX";
  Fd file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return failure("create a temporary file for", path, errno);

  const auto giveUp = [&](const char* operation, int code) {
    ::unlink(temporary.c_str());
    return failure(operation, path, code);
  };
  if (const int code = writeAll(file.get(), contents)) return giveUp("write", code);
  if (::fchmod(file.get(), mode) != 0) return giveUp("set the permissions of", errno);
  if (durability == Durability::machine && ::fdatasync(file.get()) != 0) return giveUp("flush", errno);
  // Some file systems report a full disk only here.
  if (::close(file.release()) != 0) return giveUp("write", errno);
  if (::rename(temporary.c_str(), path.c_str()) != 0) return giveUp("replace", errno);
  if (durability == Durability::machine) {
    const Fd directory(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory || ::fsync(directory.get()) != 0) return failure("flush the directory of", path, errno);
  }
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
