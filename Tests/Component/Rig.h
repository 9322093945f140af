// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include "Support/EventLoop.h"
#include "Support/Subprocess.h"

namespace vimbrel::rig {

/// Gives the rig an order ("restart logind") and waits until it is carried out.
inline void order(const std::string& text) {
  const std::string directory = std::getenv("VIMBREL_RIG");
  std::ofstream(directory + "/control") << text << std::endl;
  std::string answer;
  std::getline(std::ifstream(directory + "/answer") >> std::ws, answer);
  ASSERT_EQ(answer, "ok") << text;
}

/// Runs the loop until `done` holds; false when it does not within ten seconds.
inline bool eventually(EventLoop& loop, const std::function<bool()>& done) {
  using namespace std::chrono_literals;
  bool holds = false;
  const auto queue = loop.mainQueue();
  const auto check = queue->every(0ms, 5ms, TimerPrecision::exact, [&] {
    holds = done();
    if (holds) loop.stop();
  });
  const auto limit = queue->after(10s, [&] { loop.stop(); });
  loop.run();
  return holds;
}

/// What a bus call by an independent program prints; empty when it fails.
inline std::string busCall(const std::string& bus, const std::string& service, const std::string& path,
                           const std::string& method) {
  const auto result =
      runProgram("/usr/bin/gdbus", {"call", "--" + bus, "-d", service, "-o", path, "-m", method},
                 {.timeout = std::chrono::seconds{10}, .maximumOutputBytes = 65536});
  return result && result->exitStatus == 0 ? result->output : "";
}

/// What systemd-logind itself lists.
inline std::string listInhibitors() {
  return busCall("system", "org.freedesktop.login1", "/org/freedesktop/login1",
                 "org.freedesktop.login1.Manager.ListInhibitors");
}

inline int occurrences(const std::string& text, const std::string& part) {
  int count = 0;
  for (auto at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) ++count;
  return count;
}

}  // namespace vimbrel::rig
