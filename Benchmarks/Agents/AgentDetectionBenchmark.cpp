// SPDX-License-Identifier: Apache-2.0
// How long the table of all agents takes, against the detection of the slowest agent alone: on a machine
// whose agents answer at once, on one whose agents take their time, and on one where an agent never answers.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "AgentMonitoring/AgentMachine.h"

namespace vimbrel {
namespace {

double secondsOf(const auto& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values[values.size() / 2];
}

/// What the four agents that can be asked for their versions do, the slowest first.
struct Scripts {
  const char* what;
  const char* claude;
  const char* codex;
  const char* gemini;
  const char* opencode;
  double allowed;  ///< the ratio; 0 for none, where there is nothing to wait for
};

bool measure(const Scripts& scripts, int rounds) {
  const AgentMachine machine;
  machine.program("bin/claude", scripts.claude);
  machine.program("bin/codex", scripts.codex);
  machine.program("bin/gemini", scripts.gemini);
  machine.program("bin/opencode", scripts.opencode);
  const AgentRegistry registry(machine.environment);
  const auto slowest = registry.adapter(AgentType::claude);
  std::vector<double> all;
  std::vector<double> one;
  std::vector<double> ratios;
  for (int i = 0; i < rounds; ++i) {
    // In turns, so that whatever else the machine does meets both alike.
    const auto whole = secondsOf([&] { (void)registry.detectAll(); });
    const auto alone = secondsOf([&] { (void)slowest->detect(); });
    all.push_back(whole);
    one.push_back(alone);
    ratios.push_back(whole / alone);
  }
  const double ratio = median(ratios);
  const bool isMet = scripts.allowed == 0 || ratio <= scripts.allowed;
  char target[64] = "-";
  if (scripts.allowed != 0)
    std::snprintf(target, sizeof target, "<= %.2f  %s", scripts.allowed, isMet ? "met" : "MISSED");
  std::printf("%-34s %11.1f ms %11.1f ms %8.2f  %s\n", scripts.what, median(all) * 1000, median(one) * 1000,
              ratio, target);
  return isMet;
}

}  // namespace
}  // namespace vimbrel

int main() {
  std::printf("%-34s %14s %14s %8s  %s\n", "agents", "all", "slowest alone", "ratio", "target");
  bool isMet = vimbrel::measure({"answer at once", "echo 1", "echo 1", "echo 1", "echo 1", 0}, 51);
  isMet &= vimbrel::measure({"take 0.8, 0.6, 0.4 and 0.2 s", "sleep 0.8; echo 1", "sleep 0.6; echo 1",
                             "sleep 0.4; echo 1", "sleep 0.2; echo 1", 1.1},
                            9);
  isMet &= vimbrel::measure({"two never answer", "sleep 1000", "sleep 1000", "echo 1", "echo 1", 1.1}, 3);
  return isMet ? 0 : 1;
}
