// SPDX-License-Identifier: Apache-2.0
#include "System/FilePreferences.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>

#include "Support/AtomicFile.h"
#include "Support/Sentence.h"
#include "Support/VimbrelWritePolicy.h"

namespace vimbrel {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

constexpr std::size_t maximumFileBytes = 1U << 20U;
// Writing a document out again descends into it; nothing that people write is nested like this.
constexpr int maximumDepth = 64;

bool isNestedTooDeeply(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maximumDepth) return true;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return false;
}

PreferenceValue fromJson(const ordered_json& json) {
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number_unsigned()) {
    const auto number = json.get<std::uint64_t>();
    if (number > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
      return static_cast<double>(number);
    }
    return static_cast<std::int64_t>(number);
  }
  if (json.is_number_integer()) return json.get<std::int64_t>();
  if (json.is_number_float()) return json.get<double>();
  if (json.is_string()) {
    if (const auto instant = parseIso8601(json.get_ref<const std::string&>())) return *instant;
  }
  return {};
}

ordered_json toJson(const PreferenceValue& value) {
  if (const auto* flag = std::get_if<bool>(&value)) return *flag;
  if (const auto* whole = std::get_if<std::int64_t>(&value)) return *whole;
  if (const auto* number = std::get_if<double>(&value)) return *number;
  if (const auto* instant = std::get_if<Instant>(&value)) return formatIso8601(*instant, true);
  return nullptr;
}

std::string shortened(const ordered_json& json) {
  auto text = json.dump(-1, ' ', true, ordered_json::error_handler_t::replace);
  if (text.size() > 40) text = text.substr(0, 37) + "...";
  return text;
}

std::string_view expectation(PreferenceType type) {
  switch (type) {
    case PreferenceType::boolean:
      return sentence("true or false");
    case PreferenceType::integer:
      return sentence("a whole number");
    case PreferenceType::number:
      return "a number";
    case PreferenceType::date:
      break;
  }
  return sentence("a time such as \"2026-01-31T10:00:00Z\"");
}

std::string warningStart(const std::string& path, std::string_view key) {
  return path + ": \"" + std::string(key) + "\" is ";
}

/// The file that a write replaces: people keep settings as links into a directory of their own.
std::string resolved(const std::string& path) {
  std::error_code fault;
  if (!fs::is_symlink(path, fault)) return path;
  const auto target = fs::weakly_canonical(path, fault);
  return fault ? path : target.string();
}

}  // namespace

struct FilePreferences::Document {
  ordered_json values = ordered_json::object();  ///< the values in force
  std::string text;                              ///< the file as last read or written
  bool exists = false;
  bool isUsable = true;  ///< the file is absent, or was read into `values`
};

FilePreferences::FilePreferences(std::string path, std::span<const SettingDescription> settings)
    : path_(std::move(path)), settings_(settings), document_(std::make_unique<Document>()) {
  readFileLocked();  // nobody else knows the object yet
}

FilePreferences::~FilePreferences() = default;

void FilePreferences::watch(TaskQueue& queue) {
  // The directory is watched, not the file, so it must be there.
  const auto created = createDirectories(fs::path(path_).parent_path().string());
  if (created) watch_ = FileWatch::start(path_, queue, [this] { reload(); });
  if (!watch_.isActive()) logger_.error("Edits of %s are not followed", path_.c_str());
  reload();
}

void FilePreferences::reload() {
  bool changed = false;
  {
    const std::lock_guard guard(lock_);
    changed = rereadLocked();
  }
  if (changed) changedOutside_.send();
}

bool FilePreferences::rereadLocked() {
  const auto told = warnings_;
  const bool changed = readFileLocked();
  return changed || warnings_ != told;
}

bool FilePreferences::readFileLocked() {
  auto& document = *document_;
  const auto contents = readFile(path_, maximumFileBytes);
  if (!contents && contents.error().code == ENOENT) {
    const bool changed = !document.values.empty();
    document = Document{};
    noteWarningsLocked({});
    return changed;
  }
  if (contents && document.exists && document.isUsable && *contents == document.text) return false;

  const auto refuse = [&](const std::string& problem) {
    document.exists = true;
    document.isUsable = false;
    document.text = contents.value_or(std::string());
    noteWarningsLocked({sentence("%1; the settings stay as they were until it is repaired", {problem})});
    return false;
  };
  if (!contents) return refuse(contents.error().text());
  if (isNestedTooDeeply(*contents))
    return refuse(sentence("%1 is nested too deeply to be a settings file", {path_}));
  auto values = ordered_json::parse(*contents, nullptr, false);
  if (!values.is_object()) return refuse(sentence("%1 is not a JSON object", {path_}));

  std::vector<std::string> warnings;
  for (const auto& setting : settings_) {
    const auto found = values.find(setting.key);
    if (found == values.end() || found->is_null()) continue;
    if (std::holds_alternative<std::monostate>(convertPreference(fromJson(*found), setting.type))) {
      warnings.push_back(sentence("%1: \"%2\" is %3, not %4; using %5",
                                  {path_, setting.key, shortened(*found), expectation(setting.type),
                                   shortened(toJson(setting.defaultValue))}));
    }
  }
  const bool changed = values != document.values;
  document = Document{std::move(values), *contents, true, true};
  noteWarningsLocked(std::move(warnings));
  return changed;
}

void FilePreferences::noteWarningsLocked(std::vector<std::string> warnings) {
  for (const auto& warning : warnings) {
    if (std::ranges::find(warnings_, warning) == warnings_.end()) logger_.error("%s", warning.c_str());
  }
  warnings_ = std::move(warnings);
}

PreferenceValue FilePreferences::value(std::string_view key, PreferenceType type) const {
  const std::lock_guard guard(lock_);
  const auto found = document_->values.find(key);
  return found == document_->values.end() ? PreferenceValue{} : convertPreference(fromJson(*found), type);
}

std::expected<void, PreferencesError> FilePreferences::keepAsideLocked(const std::string& path) {
  // A link, so that at no moment is there neither the old file nor the new one.
  for (int number = 1; number < 1000; ++number) {
    const auto aside = path + ".unreadable-" + std::to_string(number);
    if (::link(path.c_str(), aside.c_str()) == 0) {
      logger_.info("Kept what could not be read as %s", aside.c_str());
      return {};
    }
    if (errno != EEXIST) break;
  }
  return std::unexpected(PreferencesError{
      sentence("%1 cannot be read as settings and cannot be kept aside (%2), so it was not replaced",
               {path, std::strerror(errno)})});
}

std::expected<void, PreferencesError> FilePreferences::store(std::span<const Change> changes) {
  bool changedByOthers = false;
  std::expected<void, PreferencesError> result;
  {
    const std::lock_guard guard(lock_);
    // An edit that has not been noticed yet must not be lost.
    changedByOthers = rereadLocked();
    result = storeLocked(changes);
  }
  if (changedByOthers) changedOutside_.send();
  return result;
}

std::expected<void, PreferencesError> FilePreferences::storeLocked(std::span<const Change> changes) {
  auto values = document_->values;
  for (const auto& [key, value] : changes) {
    if (const auto* number = std::get_if<double>(&value); number != nullptr && !std::isfinite(*number)) {
      return std::unexpected(
          PreferencesError{"a settings file cannot hold infinities as " + std::string(key)});
    }
    if (std::holds_alternative<std::monostate>(value)) {
      values.erase(std::string(key));
    } else {
      values[std::string(key)] = toJson(value);
    }
  }
  auto text = values.dump(2, ' ', false, ordered_json::error_handler_t::replace) + "\n";
  if (document_->exists && document_->isUsable && text == document_->text) return {};
  const auto target = resolved(path_);
  // Asked before anything is touched: keeping a file aside is a write, too.
  if (const auto allowed = VimbrelWritePolicy::assertCanWrite(target); !allowed) {
    return std::unexpected(PreferencesError{allowed.error().text()});
  }
  const auto directory = createDirectories(fs::path(target).parent_path().string());
  if (!directory) return std::unexpected(PreferencesError{directory.error().text()});
  if (!document_->isUsable) {
    if (auto kept = keepAsideLocked(target); !kept) return kept;
  }
  if (const auto written = replaceFile(target, text); !written) {
    return std::unexpected(PreferencesError{written.error().text()});
  }
  if (!document_->isUsable) warnings_.clear();
  *document_ = Document{std::move(values), std::move(text), true, true};
  std::erase_if(warnings_, [&](const std::string& warning) {
    return std::ranges::any_of(changes, [&](const Change& change) {
      return warning.starts_with(warningStart(path_, change.first));
    });
  });
  return {};
}

std::vector<std::string> FilePreferences::warnings() const {
  const std::lock_guard guard(lock_);
  return warnings_;
}

}  // namespace vimbrel
