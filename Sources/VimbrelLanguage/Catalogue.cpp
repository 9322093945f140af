// SPDX-License-Identifier: Apache-2.0
#include "Catalogue.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Support/Fd.h"

namespace vimbrel {
namespace {

constexpr std::uint32_t magic = 0x950412de;
constexpr std::size_t headerBytes = 28;
/// A hundred times what ours has.
constexpr std::size_t mostBytes = 16U << 20U;
/// Between a context and its text.
constexpr char contextEnd = '\x04';

std::string keyOf(std::string_view context, std::string_view english) {
  if (context.empty()) return std::string(english);
  std::string key(context);
  key += contextEnd;
  return key += english;
}

/// The part of a text with forms before the first end of one.
std::string_view firstOf(std::string_view forms) { return forms.substr(0, forms.find('\0')); }

std::string_view headerField(std::string_view header, std::string_view name) {
  const auto at = header.find(name);
  if (at == header.npos) return {};
  const auto value = header.substr(at + name.size());
  return value.substr(0, value.find('\n'));
}

}  // namespace

std::expected<Catalogue, std::string> Catalogue::open(const std::string& path) {
  const auto failed = [&](const std::string& why) { return std::unexpected(path + ": " + why); };
  const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status{};
  if (!file || ::fstat(file.get(), &status) != 0) return failed(std::strerror(errno));
  const auto size = static_cast<std::size_t>(status.st_size);
  if (size < headerBytes || size > mostBytes) return failed("is no message catalogue");
  void* const address = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
  if (address == MAP_FAILED) return failed(std::strerror(errno));
  Catalogue catalogue(std::string_view(static_cast<const char*>(address), size));
  catalogue.isMapped_ = true;
  if (const auto problem = catalogue.check()) return failed(*problem);
  return catalogue;
}

std::expected<Catalogue, std::string> Catalogue::overBytes(std::string_view bytes) {
  Catalogue catalogue(bytes);
  if (auto problem = catalogue.check()) return std::unexpected(std::move(*problem));
  return catalogue;
}

Catalogue::Catalogue(Catalogue&& other) noexcept
    : bytes_(other.bytes_),
      isMapped_(std::exchange(other.isMapped_, false)),
      isSwapped_(other.isSwapped_),
      count_(other.count_),
      originals_(other.originals_),
      translations_(other.translations_),
      plural_(std::move(other.plural_)) {}

Catalogue::~Catalogue() {
  if (isMapped_) ::munmap(const_cast<char*>(bytes_.data()), bytes_.size());
}

std::optional<std::string> Catalogue::check() {
  if (bytes_.size() < headerBytes) return "is no message catalogue";
  isSwapped_ = word(0) == __builtin_bswap32(magic);
  if (word(0) != magic) return "is no message catalogue";
  // The major version is in the upper half; minor ones only add what we do not use.
  if (word(4) >> 16U > 1) return "is of a format that is not known";
  count_ = word(8);
  originals_ = word(12);
  translations_ = word(16);
  for (const auto table : {originals_, translations_}) {
    if (table > bytes_.size() || count_ > (bytes_.size() - table) / 8) return "is cut short";
  }
  const auto header = find("", "");
  if (const auto rule = headerField(header.value_or(""), "Plural-Forms:"); !rule.empty()) {
    plural_ = PluralRule(rule);
  }
  return std::nullopt;
}

std::uint32_t Catalogue::word(std::size_t offset) const {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes_.data() + offset, sizeof value);
  return isSwapped_ ? __builtin_bswap32(value) : value;
}

std::optional<std::string_view> Catalogue::text(std::uint32_t table, std::uint32_t index) const {
  const auto entry = table + std::size_t{8} * index;
  const std::size_t length = word(entry);
  const std::size_t offset = word(entry + 4);
  if (offset > bytes_.size() || length > bytes_.size() - offset) return std::nullopt;
  return bytes_.substr(offset, length);
}

std::optional<std::string_view> Catalogue::formsOf(std::string_view key) const {
  std::uint32_t low = 0;
  std::uint32_t high = count_;
  while (low < high) {
    const auto middle = low + (high - low) / 2;
    const auto entry = text(originals_, middle);
    if (!entry) return std::nullopt;
    const auto order = firstOf(*entry).compare(key);
    if (order == 0) return text(translations_, middle);
    if (order < 0) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  return std::nullopt;
}

std::optional<std::string_view> Catalogue::find(std::string_view context, std::string_view english) const {
  const auto forms = formsOf(context.empty() ? english : keyOf(context, english));
  if (!forms || firstOf(*forms).empty()) return std::nullopt;
  return firstOf(*forms);
}

std::optional<std::string_view> Catalogue::find(std::string_view context, std::string_view english,
                                                std::int64_t number) const {
  auto forms = formsOf(keyOf(context, english));
  if (!forms) return std::nullopt;
  for (auto form = plural_.formFor(number); form > 0; --form) {
    const auto end = forms->find('\0');
    if (end == forms->npos) return std::nullopt;
    forms->remove_prefix(end + 1);
  }
  return firstOf(*forms).empty() ? std::nullopt : std::optional(firstOf(*forms));
}

void Catalogue::forEach(std::string_view context, const std::function<void(const Entry&)>& visit) const {
  const auto prefix = keyOf(context, "");
  for (std::uint32_t i = 0; i < count_; ++i) {
    auto key = text(originals_, i);
    if (!key || !key->starts_with(prefix)) continue;
    key->remove_prefix(prefix.size());
    const auto english = firstOf(*key);
    visit({english, english.size() < key->size() ? key->substr(english.size() + 1) : std::string_view{}});
  }
}

}  // namespace vimbrel
