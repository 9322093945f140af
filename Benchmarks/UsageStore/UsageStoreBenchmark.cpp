// SPDX-License-Identifier: Apache-2.0
// The usage store with the events of years: recording one event and a batch with 100,000 stored, writing the
// whole store, loading 250,000. The references, in the same run: appending the same bytes to a plain file,
// writing the same bytes with plain writes, reading the same file into a reused buffer. Loading and memory
// are measured in processes of their own: this program started again with "load PATH".

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <random>
#include <vector>

#include "AgentMonitoring/UsageStore/UsageStore.h"
#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"
#include "BenchmarkTable.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageCodec.h"
#include "Support/EventLoop.h"
#include "Support/OutputBuffer.h"
#include "Support/Subprocess.h"
#include "Support/Uuid.h"

namespace {

using namespace vimbrel;

const SystemClock systemClock;
int misses = 0;

double milliseconds() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values[values.size() / 2];
}

void report(const char* what, const char* unit, double ours, double reference, double target) {
  const bool isMet = ours <= target;
  misses += isMet ? 0 : 1;
  printBenchmarkRow({what, figure(ours, unit), figure(reference, unit), ours / reference,
                     "<= " + figure(target, unit), isMet});
}

/// Events as a coding agent's log gives them: sessions of 150 turns, every count present, priced.
class Events {
 public:
  UsageEvent next() {
    if (count_++ % 150 == 0) session_ = randomUuid();
    time_ += std::uniform_int_distribution<int>(500, 90'000)(random_) / 1000.0;
    const auto tokens = [&](int most) {
      return std::uniform_int_distribution<std::int64_t>(1, most)(random_);
    };
    UsageEvent event{.id = randomUuid(),
                     .agentType = AgentType::claude,
                     .sessionId = session_,
                     .turnId = "msg_01" + randomUuid().substr(0, 22),
                     .modelId = count_ % 3 == 0 ? "claude-3-5-haiku-20241022" : "claude-opus-5-20260401",
                     .inputTokens = tokens(300),
                     .outputTokens = tokens(2000),
                     .cachedTokens = tokens(150'000),
                     .cacheWriteTokens = tokens(8000),
                     .contextWindow = 200'000,
                     .timestamp = instantFromUnixSeconds(time_),
                     .source = "claude-project-log"};
    event.totalTokens =
        *event.inputTokens + *event.outputTokens + *event.cachedTokens + *event.cacheWriteTokens;
    event.costEstimateUSD = ModelRateCard::estimateCost(event.modelId, event.inputTokens, event.outputTokens,
                                                        event.cachedTokens, {}, event.cacheWriteTokens);
    return event;
  }
  std::vector<UsageEvent> next(std::size_t count) {
    std::vector<UsageEvent> events;
    for (std::size_t i = 0; i < count; ++i) events.push_back(next());
    return events;
  }

 private:
  std::mt19937_64 random_{7};
  std::string session_;
  double time_ = 1'700'000'000;
  std::size_t count_ = 0;
};

std::unique_ptr<UsageStore> openStore(const std::string& path, EventLoop& loop) {
  auto store = UsageStore::open({.path = path}, loop.makeQueue("bench", QueueHome::background), systemClock);
  if (!store) {
    std::fprintf(stderr, "%s\n", store.error().c_str());
    std::exit(2);
  }
  return *std::move(store);
}

double residentMegabytes(const char* field) {
  std::FILE* status = std::fopen("/proc/self/status", "r");
  char line[256];
  double kilobytes = 0;
  while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
    if (std::strncmp(line, field, std::strlen(field)) == 0) kilobytes = std::atof(line + std::strlen(field));
  }
  if (status != nullptr) std::fclose(status);
  return kilobytes / 1024;
}

int load(const std::string& path) {
  EventLoop loop;
  const double start = milliseconds();
  const auto store = openStore(path, loop);
  const double took = milliseconds() - start;
  std::printf("%f %f %f %zu\n", took, residentMegabytes("VmHWM:"), residentMegabytes("VmRSS:"),
              store->eventCount());
  return 0;
}

struct LoadFigures {
  double milliseconds = 0, peak = 0, resident = 0;
};

LoadFigures measureLoad(const std::string& self, const std::string& path) {
  std::vector<double> times;
  LoadFigures figures;
  for (int i = 0; i < 5; ++i) {
    const auto result = runProgram(self, {"load", path}, {.timeout = std::chrono::seconds(30)});
    double took = 0;
    if (!result ||
        std::sscanf(result->output.c_str(), "%lf %lf %lf", &took, &figures.peak, &figures.resident) != 3) {
      std::fprintf(stderr, "loading failed\n");
      std::exit(2);
    }
    times.push_back(took);
  }
  figures.milliseconds = median(times);
  return figures;
}

/// Writes `bytes` bytes of the given file again, in pieces, as plainly as can be.
double plainWrite(const std::string& path, const std::string& contents, int flags) {
  const double start = milliseconds();
  const Fd file(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | flags, 0600));
  for (std::size_t at = 0; at < contents.size();) {
    const auto count =
        ::write(file.get(), contents.data() + at, std::min<std::size_t>(contents.size() - at, 1 << 18));
    if (count <= 0) std::exit(2);
    at += static_cast<std::size_t>(count);
  }
  return milliseconds() - start;
}

double plainRead(const std::string& path) {
  std::vector<double> times;
  std::string buffer(1 << 18, '\0');
  for (int i = 0; i < 5; ++i) {
    const double start = milliseconds();
    const Fd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    while (::read(file.get(), buffer.data(), buffer.size()) > 0) {
    }
    times.push_back(milliseconds() - start);
  }
  return median(times);
}

void recordOneByOne(UsageStore& store, Events& events, const std::string& scratch) {
  const auto fresh = events.next(25'000);
  std::vector<double> ours;
  std::vector<double> plain;
  const Fd file(::open(scratch.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
  std::string line;
  for (const auto& event : fresh) {
    double start = milliseconds();
    if (!store.record(event)) std::exit(2);
    ours.push_back((milliseconds() - start) * 1000);
    line.clear();
    usageStoreFormat::appendJournalLine(line, event.view());
    start = milliseconds();
    if (::write(file.get(), line.data(), line.size()) < 0) std::exit(2);
    plain.push_back((milliseconds() - start) * 1000);
  }
  report("record one, 100,000 stored, median", "us", median(ours), median(plain), 50);
  report("record one, worst of 25,000 with rewrites", "ms", std::ranges::max(ours) / 1000,
         std::ranges::max(plain) / 1000, 60);
}

void recordBatches(UsageStore& store, Events& events, const std::string& scratch) {
  std::vector<double> ours;
  std::vector<double> plain;
  for (int i = 0; i < 11; ++i) {
    const auto batch = events.next(1000);
    double start = milliseconds();
    if (store.recordAll(batch) != batch.size()) std::exit(2);
    ours.push_back(milliseconds() - start);
    std::string lines;
    for (const auto& event : batch) usageStoreFormat::appendJournalLine(lines, event.view());
    plain.push_back(plainWrite(scratch, lines, O_APPEND));
  }
  report("record a batch of 1,000, median", "ms", median(ours), median(plain), 10);
}

void writeWhole(const std::vector<UsageEvent>& events, const std::string& scratch) {
  UsageLedger contents;
  for (const auto& event : events) contents.events.append(event.view());
  std::vector<double> ours;
  std::vector<double> plain;
  for (int i = 0; i < 9; ++i) {
    double start = milliseconds();
    {
      const Fd file(::open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
      OutputBuffer output(file.get());
      usageStoreFormat::write(output, contents);
      if (!output.flush()) std::exit(2);
    }
    ours.push_back(milliseconds() - start);
    const auto written = readFile(scratch);
    std::filesystem::remove(scratch);
    plain.push_back(plainWrite(scratch, *written, O_TRUNC));
    std::filesystem::remove(scratch);
  }
  report("write the whole store, 100,000 events", "ms", median(ours), median(plain), 60);
  const double start = milliseconds();
  auto tree = nlohmann::json::array();
  for (const auto& event : events) tree.push_back(toJson(event, DateCoding::referenceSeconds));
  const auto text = tree.dump();
  std::printf("%-44s %14.0f ms for %.0f MB\n", "  (a general JSON tree of the events alone)",
              milliseconds() - start, static_cast<double>(text.size()) / 1e6);
}

}  // namespace

int main(int count, char** arguments) {
  if (count == 3 && std::strcmp(arguments[1], "load") == 0) return load(arguments[2]);
  char pattern[] = "/tmp/vimbrel-bench-XXXXXX";
  const std::string directory = ::mkdtemp(pattern);
  const auto self = std::filesystem::read_symlink("/proc/self/exe").string();
  const auto path = directory + "/usage_store.json";
  {
    EventLoop loop;
    Events events;
    auto store = openStore(path, loop);
    store->recordAll(events.next(100'000));
    store->stop();
    const auto figures = measureLoad(self, [&] {
      std::filesystem::copy_file(path, directory + "/copy.json");
      return directory + "/copy.json";
    }());
    report("running with 100,000 events, resident", "MB", figures.resident,
           static_cast<double>(std::filesystem::file_size(path)) / 1e6, 30);
    recordOneByOne(*store, events, directory + "/plain");
    recordBatches(*store, events, directory + "/plain");
    writeWhole(events.next(100'000), directory + "/scratch");
    store->recordAll(events.next(250'000 - store->eventCount()));
  }
  const auto figures = measureLoad(self, path);
  report("load 250,000 events", "ms", figures.milliseconds, plainRead(path), 400);
  report("load 250,000 events, peak resident", "MB", figures.peak,
         static_cast<double>(std::filesystem::file_size(path)) / 1e6, 80);
  std::filesystem::remove_all(directory);
  return misses == 0 ? 0 : 1;
}
