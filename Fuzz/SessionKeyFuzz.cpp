// SPDX-License-Identifier: Apache-2.0
// What an agent writes to its hook's standard input: the session that the relay finds does not depend on how
// the bytes arrive, and in every JSON object it is the one that a parser finds.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "Support/JsonMemberScanner.h"

namespace {

using vimbrel::JsonMemberScanner;
constexpr std::string_view wanted = "session_id";

/// The first text among the outermost object's members of that name.
class FirstText final : public nlohmann::json_sax<nlohmann::json> {
 public:
  std::optional<std::string> text;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool string(string_t& value) override {
    if (depth_ == 1 && isObject_ && isWanted_ && !text) text = value;
    return true;
  }
  bool start_object(std::size_t) override {
    if (depth_ == 0) isObject_ = true;
    ++depth_;
    return true;
  }
  bool key(string_t& name) override {
    if (depth_ == 1) isWanted_ = name == wanted;
    return true;
  }
  bool end_object() override { return --depth_ >= 0; }
  bool start_array(std::size_t) override { return ++depth_ > 0; }
  bool end_array() override { return --depth_ >= 0; }
  bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
    return false;
  }

 private:
  int depth_ = 0;
  bool isObject_ = false;
  bool isWanted_ = false;
};

std::optional<std::string> scan(std::string_view bytes, std::size_t pieceSize) {
  JsonMemberScanner scanner(wanted);
  for (std::size_t i = 0; i < bytes.size(); i += pieceSize) scanner.feed(bytes.substr(i, pieceSize));
  if (scanner.progress() != JsonMemberScanner::Progress::found) return std::nullopt;
  return std::string(scanner.value());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const auto whole = scan(bytes, bytes.size() + 1);
  if (scan(bytes, 1) != whole || scan(bytes, 7) != whole) std::abort();
  if (whole && (whole->empty() || whole->size() > JsonMemberScanner::maximumValueBytes)) std::abort();

  FirstText first;
  if (!nlohmann::json::sax_parse(bytes, &first)) return 0;
  // A byte order mark is no JSON, though this parser lets it pass.
  if (bytes.starts_with("\xEF\xBB\xBF")) return 0;
  if (first.text && (first.text->empty() || first.text->size() > JsonMemberScanner::maximumValueBytes)) {
    first.text.reset();
  }
  if (whole != first.text) std::abort();
  return 0;
}
