// SPDX-License-Identifier: Apache-2.0
// The import of Claude Code histories of growing size into an empty store, whole processes, with the files in
// the page cache; the reference only reads the same files. With --full also 4 GB. Then the cost of a poll
// that finds nothing new in 800 files.
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "AgentMonitoring/UsageProviders/ClaudeUsageProvider.h"
#include "ClaudeHistory.h"
#include "Platform/Linux/InotifyTree.h"
#include "ProcessRun.h"
#include "Support/VirtualTime.h"

namespace {

using namespace vimbrel;
namespace fs = std::filesystem;

constexpr int pairs = 5;

std::string milliseconds(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.0f ms", seconds * 1000);
  return text;
}

std::string mebibytes(long kibibytes) { return std::to_string(kibibytes / 1024) + " MiB"; }

/// A directory that goes away with its contents.
struct Scratch {
  Scratch() {
    char pattern[] = "/tmp/vimbrel-import-XXXXXX";
    path = ::mkdtemp(pattern);
  }
  ~Scratch() {
    std::error_code ignored;  // What cannot be removed is left to the system's own cleaning.
    fs::remove_all(path, ignored);
  }
  std::string path;
};

bool importOf(const std::string& root, std::uint64_t mebibytesInAll, int threads, double target) {
  std::vector<double> ours;
  std::vector<double> reference;
  std::vector<double> ratios;
  long peak = 0;
  for (int i = 0; i <= pairs; ++i) {
    const Scratch store;
    // The write policy knows this place from the environment.
    ::setenv("XDG_DATA_HOME", store.path.c_str(), 1);
    const auto read = runProcess({READ_FILES, root});
    const auto imported =
        runProcess({IMPORT_HISTORY, root, store.path + "/Vimbrel", std::to_string(threads)});
    if (read.exitStatus != 0 || imported.exitStatus != 0) {
      std::fprintf(stderr, "bench_usage_import: a run failed\n");
      return false;
    }
    if (i == 0) continue;  // warms the page cache
    ours.push_back(imported.wallSeconds);
    reference.push_back(read.wallSeconds);
    ratios.push_back(imported.wallSeconds / read.wallSeconds);
    peak = std::max(peak, imported.peakKiB);
  }
  const auto what = "import of " + std::to_string(mebibytesInAll) + " MiB, " + std::to_string(threads) +
                    (threads == 1 ? " thread" : " threads");
  const bool met =
      printRow(what, milliseconds(median(ours)), milliseconds(median(reference)) + " reading them",
               median(ratios), target, "", median(ratios));
  (void)printRow("  resident at most, store included", mebibytes(peak), "", 0, 0, "", std::nullopt);
  return met;
}

bool idlePoll(const std::string& root) {
  VirtualTime time(instantFromUnixSeconds(1'800'000'000));
  ClaudeUsageProvider provider({root}, time.mainQueue(), time, ModelRateCard::builtIn(),
                               [](const std::string& tree) { return std::make_unique<InotifyTree>(tree); });
  provider.pollLatestEvents();
  provider.pollLatestEvents();
  using Clock = std::chrono::steady_clock;
  const auto microseconds = [](Clock::duration duration) {
    return std::chrono::duration<double, std::micro>(duration).count();
  };
  std::vector<double> ours;
  std::vector<double> walks;
  for (int i = 0; i < 101; ++i) {
    auto start = Clock::now();
    provider.pollLatestEvents();
    ours.push_back(microseconds(Clock::now() - start));
    start = Clock::now();
    std::size_t files = 0;
    for (const auto& entry : fs::recursive_directory_iterator(root)) files += entry.is_regular_file() ? 1 : 0;
    if (files == 0) return false;
    walks.push_back(microseconds(Clock::now() - start));
  }
  char left[32];
  char right[32];
  std::snprintf(left, sizeof left, "%.1f us", median(ours));
  std::snprintf(right, sizeof right, "%.0f us walk", median(walks));
  return printRow("poll that finds nothing, 800 files", left, right, median(ours), 50, "us",
                  median(ours) / median(walks));
}

}  // namespace

int main(int argc, char** argv) {
  const bool full = argc > 1 && std::strcmp(argv[1], "--full") == 0;
  bool met = true;
  for (const std::uint64_t size : {100U, 1024U, 4096U}) {
    if (size == 4096 && !full) continue;
    const Scratch history;
    writeClaudeHistory(history.path, {.bytes = size << 20U});
    // The targets hold for 1 GB; the other sizes show how the cost grows.
    const bool isTarget = size == 1024;
    met = importOf(history.path, size, 1, isTarget ? 4.5 : 0) && met;
    met = importOf(history.path, size, 2, isTarget ? 3 : 0) && met;
    if (isTarget) met = idlePoll(history.path) && met;
  }
  return met ? 0 : 1;
}
