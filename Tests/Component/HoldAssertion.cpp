// SPDX-License-Identifier: Apache-2.0
// Holds idle sleep off until standard input ends, and prints what holds it:
//   hold_assertion [--display]
// Exit status 1 when nothing here can hold it.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Platform/Linux/LinuxSleepAssertions.h"
#include "Support/EventLoop.h"

using namespace vimbrel;

int main(int count, char** arguments) {
  EventLoop loop;
  const auto queue = loop.mainQueue();
  const char* desktop = std::getenv("XDG_CURRENT_DESKTOP");
  LinuxSleepAssertions assertions(queue, std::make_shared<BusConnection>(BusKind::system, queue),
                                  std::make_shared<BusConnection>(BusKind::session, queue),
                                  desktop == nullptr ? "" : desktop);
  const bool display = count > 1 && std::string_view(arguments[1]) == "--display";
  const auto held = assertions.create(
      display ? AssertionType::preventUserIdleDisplaySleep : AssertionType::preventUserIdleSystemSleep,
      "Vimbrel: held by hand");
  const auto print = [&] {
    for (const auto& status : assertions.mechanisms()) {
      static constexpr const char* states[] = {"available", "granted", "refused", "missing"};
      std::printf("%-17s %-10s %s\n", status.name.c_str(), states[static_cast<int>(status.state)],
                  status.detail.c_str());
    }
    std::puts(held ? "held" : "not held");
    std::fflush(stdout);
  };
  print();
  if (!held) return 1;
  assertions.onMechanismsChanged = print;
  const auto input = queue->watchReadable(STDIN_FILENO, [&] {
    char ignored[256];
    if (::read(STDIN_FILENO, ignored, sizeof ignored) <= 0) loop.stop();
  });
  loop.run();
  return 0;
}
