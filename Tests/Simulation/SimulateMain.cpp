// SPDX-License-Identifier: Apache-2.0
// Runs storms, each from a seed, and tells what came of them. The first that breaks a promise is made as
// short as it gets, printed, and left to be replayed.
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "Simulation/Days.h"
#include "Simulation/Storm.h"

namespace {

using namespace vimbrel;

int usage() {
  std::fputs(
      "usage: simulate [--seeds N] [--first SEED] [--steps N]\n"
      "       simulate --seed SEED [--steps N] [--only STEP,STEP,…] [--trace]\n"
      "       simulate --days N\n",
      stderr);
  return 2;
}

bool read(std::string_view text, std::uint32_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc{} && end == text.data() + text.size();
}

bool readSteps(std::string_view text, std::set<std::uint32_t>& steps) {
  while (!text.empty()) {
    const auto comma = std::min(text.find(','), text.size());
    std::uint32_t step = 0;
    if (!read(text.substr(0, comma), step)) return false;
    steps.insert(step);
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return true;
}

void print(const StormResult& result) {
  for (const auto& line : result.trace) std::printf("  %s\n", line.c_str());
  if (result.violation) std::printf("BROKEN %s\n", result.violation->c_str());
}

int tellFailure(const StormPlan& plan, const StormResult& result) {
  std::printf("seed %u broke a promise %s\nmaking it shorter…\n", plan.seed, result.violation->c_str());
  const auto shorter = minimised(plan, result);
  print(runStorm(shorter));
  std::string steps;
  for (const auto step : *shorter.only) steps += (steps.empty() ? "" : ",") + std::to_string(step);
  std::printf("replay: ./dev simulate --seed %u --steps %u --only %s\n", plan.seed, plan.steps,
              steps.c_str());
  return 1;
}

/// Days that are all alike, and what each night finds.
int tellDays(std::uint32_t days) {
  const auto lived = liveDays({.days = static_cast<int>(days)});
  std::puts("night  allocated KiB  files KiB  tasks waiting  descriptors");
  for (std::size_t night = 0; night < lived.nights.size(); ++night) {
    const auto& reading = lived.nights[night];
    std::printf("%5zu  %13zu  %9zu  %13zu  %11zu\n", night + 1, reading.allocatedBytes / 1024,
                reading.fileBytes / 1024, reading.scheduled, reading.descriptors);
  }
  std::printf("%llu tasks checked\n", static_cast<unsigned long long>(lived.tasks));
  if (lived.violation) std::printf("BROKEN %s\n", lived.violation->c_str());
  return lived.violation ? 1 : 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::uint32_t seeds = 100;
  std::uint32_t first = 1;
  StormPlan plan;
  bool isReplay = false;
  bool isTraced = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view option = argv[i];
    if (option == "--trace") {
      isTraced = true;
      continue;
    }
    if (i + 1 == argc) return usage();
    const std::string_view value = argv[++i];
    if (std::uint32_t days = 0; option == "--days" && read(value, days)) return tellDays(days);
    if (option == "--seeds" && read(value, seeds)) continue;
    if (option == "--first" && read(value, first)) continue;
    if (option == "--steps" && read(value, plan.steps)) continue;
    if (option == "--seed" && read(value, plan.seed)) {
      isReplay = true;
      continue;
    }
    if (option == "--only" && readSteps(value, plan.only.emplace())) continue;
    return usage();
  }
  if (isReplay) {
    if (isTraced || plan.only) {
      const auto result = runStorm(plan);
      print(result);
      return result.violation ? 1 : 0;
    }
    first = plan.seed;
    seeds = 1;
  }

  const auto begin = std::chrono::steady_clock::now();
  std::uint64_t tasks = 0;
  std::chrono::nanoseconds lived{0};
  std::map<std::string, std::uint64_t> counts;
  for (std::uint32_t seed = first; seed < first + seeds; ++seed) {
    plan.seed = seed;
    const auto result = runStorm(plan);
    if (result.violation) return tellFailure(plan, result);
    tasks += result.tasks;
    lived += result.lived;
    for (const auto& [kind, count] : result.counts) counts[kind] += count;
  }
  const auto took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  std::printf("%u seeds, %.1f hours lived in %.1f s, %llu tasks checked, no promise broken\n", seeds,
              std::chrono::duration<double, std::ratio<3600>>(lived).count(), took,
              static_cast<unsigned long long>(tasks));
  for (const auto& [kind, count] : counts) {
    std::printf("  %-28s %llu\n", kind.c_str(), static_cast<unsigned long long>(count));
  }
  return 0;
}
