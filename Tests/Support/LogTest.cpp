// SPDX-License-Identifier: Apache-2.0
#include "Support/Log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vimbrel {
namespace {

using namespace std::chrono_literals;

TEST(Log, letsOneStatementBeHeardOnlySoOften) {
  std::vector<std::string> lines;
  std::chrono::nanoseconds uptime = 1h;
  auto before = logging::setSink(
      [&](LogLevel, std::string_view, std::string_view, std::string_view text) { lines.emplace_back(text); });
  logging::limitRepetition({2, 10min, [&] { return uptime; }});
  const Logger logger("test");
  const auto repeat = [&](int number) { logger.error("again %d", number); };
  for (int number = 1; number <= 5; ++number) repeat(number);
  logger.info("another");
  uptime += 10min - 1ns;
  repeat(6);
  uptime += 1ns;
  for (int number = 7; number <= 9; ++number) repeat(number);
  logging::limitRepetition({});
  for (int number = 10; number <= 13; ++number) repeat(number);
  logging::setSink(std::move(before));
  EXPECT_EQ(lines, (std::vector<std::string>{"again 1", "again 2", "another",
                                             "again 7 (4 more like this were left out before it)", "again 8",
                                             "again 10", "again 11", "again 12", "again 13"}));
}

}  // namespace
}  // namespace vimbrel
