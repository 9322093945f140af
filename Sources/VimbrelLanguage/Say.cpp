// SPDX-License-Identifier: Apache-2.0
#include "Say.h"

#include <mutex>
#include <optional>
#include <vector>

#include "Catalogue.h"
#include "Retelling.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

/// The language, and the sentences of the application in it, which only some programs need.
class Voice {
 public:
  explicit Voice(std::shared_ptr<const Catalogue> catalogue) : catalogue_(std::move(catalogue)) {}

  [[nodiscard]] const Catalogue& catalogue() const { return *catalogue_; }
  [[nodiscard]] const Retelling& retelling() {
    std::call_once(once_, [this] { retelling_.emplace(*catalogue_); });
    return *retelling_;
  }

 private:
  const std::shared_ptr<const Catalogue> catalogue_;
  std::once_flag once_;
  std::optional<Retelling> retelling_;
};

std::unique_ptr<Voice>& installed() {
  static std::unique_ptr<Voice> voice;
  return voice;
}

thread_local int englishScopes = 0;

Voice* voice() { return englishScopes > 0 ? nullptr : installed().get(); }

}  // namespace

void speak(std::shared_ptr<const Catalogue> catalogue) {
  installed() = catalogue ? std::make_unique<Voice>(std::move(catalogue)) : nullptr;
}

std::string say(const char* english, std::initializer_list<std::string_view> values) {
  std::string_view pattern = english;
  if (const auto* speaker = voice(); speaker != nullptr && !pattern.empty()) {
    pattern = speaker->catalogue().find("", pattern).value_or(pattern);
  }
  // Most texts have none, and a command's help alone has a hundred.
  if (values.size() == 0) return std::string(pattern);
  return filledIn(pattern, values.begin(), values.size());
}

std::string sayCount(std::int64_t count, const char* one, const char* many,
                     std::initializer_list<std::string_view> values) {
  std::string_view pattern = count == 1 ? one : many;
  if (const auto* speaker = voice(); speaker != nullptr) {
    pattern = speaker->catalogue().find("", one, count).value_or(pattern);
  }
  const auto number = std::to_string(count);
  std::vector<std::string_view> all{number};
  all.insert(all.end(), values);
  return filledIn(pattern, all.data(), all.size());
}

std::string sayAs(const char* context, const char* english, std::initializer_list<std::string_view> values) {
  std::string_view pattern = english;
  if (const auto* speaker = voice(); speaker != nullptr) {
    pattern = speaker->catalogue().find(context, pattern).value_or(pattern);
  }
  return filledIn(pattern, values.begin(), values.size());
}

std::string retell(std::string_view english) {
  auto* speaker = voice();
  return speaker == nullptr ? std::string(english) : speaker->retelling().retell(english);
}

InEnglish::InEnglish() { ++englishScopes; }
InEnglish::~InEnglish() { --englishScopes; }

}  // namespace vimbrel
