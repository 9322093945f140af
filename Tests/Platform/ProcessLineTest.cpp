// SPDX-License-Identifier: Apache-2.0
#include "Platform/ProcessLine.h"

#include <gtest/gtest.h>

namespace vimbrel {
namespace {

TEST(ProcessLine, readsPidAndCommandAndDropsWhatIsNeither) {
  const std::tuple<const char*, std::int32_t, const char*> lines[] = {
      {"  812 /usr/local/bin/codex exec fix tests", 812, "/usr/local/bin/codex exec fix tests"},
      {"1   indented  and trailing \t\r", 1, "  indented  and trailing"},
      {"\xc2\xa0 7 x\xe3\x80\x80", 7, "x"},
      {"2147483647 top", 2147483647, "top"},
      {"+3 signed", 3, "signed"},
  };
  for (const auto& [line, pid, command] : lines) {
    EXPECT_EQ(parseProcessLine(line), (ProcessEntry{pid, command})) << line;
  }
  for (const char* line : {"", "   ", "  PID COMMAND", "812", "812   ", "812\tcodex x", "2147483648 x",
                           "12a x", "+-1 x", "0x1 x", "\xd9\xa1 x"}) {
    EXPECT_EQ(parseProcessLine(line), std::nullopt) << line;
  }
}

TEST(ProcessLine, splitsAListingAtEveryNewline) {
  std::vector<ProcessEntry> entries;
  appendProcessLines(
      "  PID COMMAND\n1 a\r\n2 b\v3 c\f4 d\u0085"
      "5 e\u2028"
      "6 f\u2029\n\n7 g",
      entries);
  std::string seen;
  for (const auto& entry : entries) seen += std::to_string(entry.pid) + entry.command;
  EXPECT_EQ(seen, "1a2b3c4d5e6f7g");
}

}  // namespace
}  // namespace vimbrel
