// SPDX-License-Identifier: Apache-2.0
// Stands for an application that wants the lid covered: hold-lease SOCKET TTL-SECONDS INTERVAL-MILLISECONDS
// acquires again and again through the application's own client until it is killed. Prints a line for each
// answer: "granted" or "refused".
#include <unistd.h>

#include <cstdlib>

#include "DeepHold/DeepSleepController.h"
#include "Support/EventLoop.h"
#include "Support/Log.h"

int main(int argc, char** argv) {
  using namespace vimbrel;
  if (argc != 4) return 2;
  logging::setSink([](auto&&...) {});
  EventLoop loop;
  DeepSleepController controller(loop, argv[1]);
  const double ttl = std::atof(argv[2]);
  const auto timer = loop.mainQueue()->every(
      std::chrono::nanoseconds{0}, std::chrono::milliseconds{std::atoi(argv[3])}, TimerPrecision::exact, [&] {
        controller.acquire(ttl, [](bool granted) {
          const ssize_t ignored = ::write(STDOUT_FILENO, granted ? "granted\n" : "refused\n", 8);
          (void)ignored;  // Whoever read this has gone.
        });
      });
  loop.run();
}
