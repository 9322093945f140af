// SPDX-License-Identifier: Apache-2.0
#include "Support/JsonMemberScanner.h"

#include <gtest/gtest.h>

#include <string>

namespace vimbrel {
namespace {

using Progress = JsonMemberScanner::Progress;

/// What is found in `text` as the value of "id": the value, "(more)" or "(absent)".
std::string found(std::string_view text, std::size_t firstPiece) {
  JsonMemberScanner scanner("id");
  scanner.feed(text.substr(0, firstPiece));
  const auto progress = scanner.feed(text.substr(firstPiece));
  if (progress != Progress::found) return progress == Progress::more ? "(more)" : "(absent)";
  return std::string(scanner.value());
}

TEST(JsonMemberScanner, findsAMemberOfTheOutermostObjectHoweverTheBytesArrive) {
  const std::string longest(JsonMemberScanner::maximumValueBytes, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {R"({"id":"a"})", "a"},
      {" \n{ \"x\" : 1 , \"id\"\t:\r\"a b\" ", "a b"},
      {R"({"in":{"id":"no"},"list":[{"id":"no"},"id"],"id":"yes")", "yes"},
      {R"({"text":"\"id\":\"no\"}","id":"yes")", "yes"},
      {R"({"xid":"no","i":"no","idx":"no","id":"yes"})", "yes"},
      {R"({"\u0069d":"yes"})", "yes"},
      {R"({"id":true,"id":[],"id":{"a":"}"},"id":"yes"})", "yes"},
      {R"({"id":"\"\\\/\b\f\n\r\t\u00e9\u20AC\ud83d\ude00"})", "\"\\/\b\f\n\r\té€😀"},
      {R"({"id":"a\ud83d\ud83d\ude00\ude00z\ud83d"})", "a\uFFFD😀\uFFFDz\uFFFD"},
      {R"({"id":")" + longest + "\"", longest},
      {R"({"id":"x)" + longest + "\"", "(absent)"},
      {R"({"id":""})", "(absent)"},
      {R"({"id":7})", "(absent)"},
      {R"({"a":{"b":[1,2]}})", "(absent)"},
      {R"(["id","a"])", "(absent)"},
      {"id", "(absent)"},
      {R"({id:"a"})", "(absent)"},
      {R"({"id" "a"})", "(absent)"},
      {R"({"id":"\x"})", "(absent)"},
      {R"({"id":"\u00g0"})", "(absent)"},
      {"", "(more)"},
      {R"({"id":"half)", "(more)"},
      {R"({"id":"half\)", "(more)"},
      {R"({"a":[[[[)", "(more)"},
  };
  for (const auto& [text, expected] : cases) {
    for (std::size_t piece = 0; piece <= text.size(); ++piece) {
      ASSERT_EQ(found(text, piece), expected) << text << " in pieces of " << piece;
    }
  }
}

}  // namespace
}  // namespace vimbrel
