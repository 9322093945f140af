// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "Say.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

/// One line that is drawn over and over; nothing where standard error is no terminal.
class ProgressBar {
 public:
  ~ProgressBar() { clear(); }

  void draw(const json& state) {
    if (!isTerminal_) return;
    const auto inAll = state.value("bytesInAll", std::uint64_t{0});
    const auto share = inAll == 0 ? 0.0
                                  : static_cast<double>(state.value("bytesDone", std::uint64_t{0})) /
                                        static_cast<double>(inAll);
    char figures[32];
    std::snprintf(figures, sizeof figures, " %3.0f %%  ", std::min(share, 1.0) * 100);
    const auto files = say("%1 of %2 files", {std::to_string(state.value("filesDone", 0ULL)),
                                              std::to_string(state.value("filesInAll", 0ULL))});
    const std::size_t width = std::clamp<std::size_t>(outputWidth(STDERR_FILENO), 60, 100) - 45;
    const auto filled = static_cast<std::size_t>(std::min(share, 1.0) * static_cast<double>(width));
    std::string line = "\r" + say("Reading") + " ";
    for (std::size_t i = 0; i < width; ++i) line += i < filled ? "█" : "░";
    std::fputs((line + figures + files + "\033[K").c_str(), stderr);
    std::fflush(stderr);
    isDrawn_ = true;
  }
  void clear() {
    if (isDrawn_) std::fputs("\r\033[K", stderr);
    isDrawn_ = false;
  }

 private:
  const bool isTerminal_ = ::isatty(STDERR_FILENO) != 0;
  bool isDrawn_ = false;
};

}  // namespace

int usageImportCommand(bool all, Output output) {
  const auto begun = ask("usage.import", {{"all", all}});
  if (!begun) return begun.error();
  const auto target = begun->value("endedWhenDone", std::uint64_t{1});
  json state;
  {
    ProgressBar bar;
    for (;;) {
      auto answer = ask("usage.importState", json::object());
      if (!answer) return answer.error();
      state = *std::move(answer);
      if (state.value("ended", std::uint64_t{0}) >= target) break;
      bar.draw(state);
      std::this_thread::sleep_for(100ms);
    }
  }
  const auto latest = state.value("latest", json::object());
  if (output == Output::json) {
    printJson(latest);
  } else {
    const auto count = [&](const char* key) { return std::to_string(latest.value(key, std::uint64_t{0})); };
    printLines(
        {say("Read %1 files (%2 MB); %3 had not changed. New: %4 of %5 records.",
             {count("filesRead"), std::to_string(latest.value("bytesRead", std::uint64_t{0}) / 1'000'000),
              count("filesUnchanged"), count("eventsRecorded"), count("eventsFound")})});
  }
  const auto unread = latest.value("filesFailed", std::uint64_t{0});
  if (unread != 0) {
    return reportProblem(sayCount(static_cast<std::int64_t>(unread),
                                  "%1 file could not be read to its end; it is tried again next time",
                                  "%1 files could not be read to their end; they are tried again next time"));
  }
  return exitCode::done;
}

}  // namespace vimbrel
