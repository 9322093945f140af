// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageImport/ImportIndex.h"

#include <simdjson.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Support/AtomicFile.h"
#include "Support/Directories.h"
#include "Support/JsonWriter.h"
#include "Support/Log.h"
#include "Support/OwnFile.h"

namespace vimbrel {

std::optional<FileStamp> stampOf(const std::string& path) {
  struct stat status{};
  if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  return FileStamp{static_cast<std::uint64_t>(status.st_size),
                   std::int64_t{status.st_mtim.tv_sec} * 1'000'000'000 + status.st_mtim.tv_nsec};
}

std::string ImportIndex::defaultPath() {
  return directories::applicationSupport() + "/Vimbrel/usage_index.json";
}

ImportIndex::ImportIndex(std::string path) : path_(std::move(path)) {
  const auto text = readFile(path_);
  if (!text) return;
  simdjson::dom::parser parser;
  simdjson::dom::element root;
  if (parser.parse(*text).get(root) != simdjson::SUCCESS) return;
  simdjson::dom::object files;
  if (root["files"].get(files) == simdjson::SUCCESS) {
    for (const auto [file, value] : files) {
      std::uint64_t size = 0;
      std::int64_t modified = 0;
      if (value.at(0).get(size) == simdjson::SUCCESS && value.at(1).get(modified) == simdjson::SUCCESS) {
        files_.emplace(std::string(file), FileStamp{size, modified});
      }
    }
  }
  simdjson::dom::object projects;
  if (root["projects"].get(projects) == simdjson::SUCCESS) {
    for (const auto [session, value] : projects) {
      std::string_view directory;
      if (value.get(directory) == simdjson::SUCCESS)
        projects_.emplace(std::string(session), std::string(directory));
    }
  }
}

bool ImportIndex::isUnchanged(const std::string& file, const FileStamp& stamp) const {
  const std::lock_guard guard(lock_);
  const auto known = files_.find(file);
  return known != files_.end() && known->second == stamp;
}

void ImportIndex::setRead(const std::string& file, const FileStamp& stamp) {
  const std::lock_guard guard(lock_);
  files_[file] = stamp;
  isChanged_ = true;
}

std::optional<std::string> ImportIndex::projectOf(std::string_view session) const {
  const std::lock_guard guard(lock_);
  const auto known = projects_.find(session);
  return known == projects_.end() ? std::nullopt : std::optional(known->second);
}

void ImportIndex::setProject(const std::string& session, const std::string& directory) {
  const std::lock_guard guard(lock_);
  auto& known = projects_[session];
  if (known == directory) return;
  known = directory;
  isChanged_ = true;
}

void ImportIndex::forgetFiles() {
  const std::lock_guard guard(lock_);
  files_.clear();
  isChanged_ = true;
}

void ImportIndex::remove(const std::string& path) {
  if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
    Logger("usage.coordinator").error("Failed to remove the usage index: %s", std::strerror(errno));
  }
}

bool ImportIndex::save() {
  std::string text = R"({"files":{)";
  {
    const std::lock_guard guard(lock_);
    if (!isChanged_) return true;
    isChanged_ = false;
    bool first = true;
    const auto separate = [&] {
      if (!first) text += ",\n";
      first = false;
    };
    for (const auto& [file, stamp] : files_) {
      separate();
      appendJsonString(text, file);
      text += ":[" + std::to_string(stamp.size) + "," + std::to_string(stamp.modified) + "]";
    }
    text += "},\n\"projects\":{";
    first = true;
    for (const auto& [session, directory] : projects_) {
      separate();
      appendJsonString(text, session);
      text += ":";
      appendJsonString(text, directory);
    }
    text += "}}\n";
  }
  if (const auto written = replaceOwnFile(path_, text); !written) {
    Logger("usage.coordinator").error("Failed to save the usage index: %s", written.error().text().c_str());
    const std::lock_guard guard(lock_);
    isChanged_ = true;
    return false;
  }
  return true;
}

}  // namespace vimbrel
