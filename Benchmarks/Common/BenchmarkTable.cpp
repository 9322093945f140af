// SPDX-License-Identifier: Apache-2.0
#include "BenchmarkTable.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace vimbrel {

std::string figure(double value, const char* unit) {
  char text[64];
  const double size = std::fabs(value);
  std::snprintf(text, sizeof text, "%.*f%s%s",
                size >= 100 || size == 0 ? 0
                : size >= 10             ? 1
                                         : 2,
                value, unit[0] == '\0' ? "" : " ", unit);
  return text;
}

void printBenchmarkRow(const BenchmarkRow& row) {
  char ratio[32] = "-";
  if (row.costRatio) std::snprintf(ratio, sizeof ratio, "%.3g", *row.costRatio);
  const char* verdict = !row.met ? "" : *row.met ? "met" : "MISSED";
  std::printf("%-46s %14s %30s %9s  %-14s %s\n", row.what.c_str(), row.ours.c_str(), row.reference.c_str(),
              ratio, row.target.c_str(), verdict);
  std::fflush(stdout);
  const char* path = std::getenv("VIMBREL_BENCH_ROWS");
  if (path == nullptr) return;
  std::FILE* file = std::fopen(path, "a");
  if (file == nullptr) return;
  std::fprintf(file, "%s\t%s\t%s\t%s\t%s\t%s\n", row.what.c_str(), row.ours.c_str(), row.reference.c_str(),
               ratio, row.target.c_str(), verdict);
  std::fclose(file);
}

}  // namespace vimbrel
