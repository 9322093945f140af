// SPDX-License-Identifier: Apache-2.0
// Any lines on the control socket of a running application on virtual time: each gets one answer that is an
// answer, and the application keeps its promises meanwhile.
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "CapturedLog.h"
#include "Control/DeepHoldMethods.h"
#include "Control/DoctorMethods.h"
#include "Control/ProtectionMethods.h"
#include "Control/SettingsMethods.h"
#include "Control/StatusMethods.h"
#include "Control/UsageMethods.h"
#include "Simulation/SimulatedApplication.h"

namespace {

using namespace vimbrel;
using namespace std::chrono_literals;

void require(bool condition) {
  if (!condition) std::abort();
}

struct Peer final : RpcPeer {
  void subscribe() override {}
  void unsubscribe() override {}
};

void requireIsAnswer(const std::string& line) {
  if (line.empty()) return;  // A notification's.
  require(line.find('\n') == line.npos);
  const auto answer = nlohmann::json::parse(line, nullptr, false);
  require(answer.is_object() && answer.value("jsonrpc", "") == "2.0" && answer.contains("id"));
  require(answer.contains("result") != answer.contains("error"));
  if (answer.contains("error")) {
    require(answer["error"]["code"].is_number_integer());
    require(!answer["error"]["message"].get<std::string>().empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const CapturedLog quiet;
  SimulatedApplication world;
  world.start();
  ControlServer server(world.time().mainQueue(), world.time());
  const ControlledApplication application{
      world.app().coordinator(), world.app().platform(),     world.time(), "1",
      &world.app().deepHold(),   &world.app().commandHolds()};
  std::vector<Token> tokens;
  tokens.push_back(addStatusMethods(server, application));
  tokens.push_back(addDeepHoldMethods(server, application));
  addSettingsMethods(server, application);
  addProtectionMethods(server, application);
  addDoctorMethods(server, application);
  addUsageMethods(server, {.coordinator = world.app().usage()}, world.time(), world.time().mainQueue());

  {
    Peer peer;
    std::size_t asked = 0;
    std::size_t answered = 0;
    for (std::size_t start = 0; start < size && asked < 16; ++asked) {
      const auto end = std::min(text.find('\n', start), size);
      server.methods().handle(text.substr(start, end - start), peer, [&](const std::string& line) {
        requireIsAnswer(line);
        ++answered;
      });
      start = end + 1;
      world.run(100ms);
    }
    world.run(1s);
    require(answered == asked);
  }
  // What was asked for may last, but nothing of it goes against the policy.
  world.run(2s);
  if (world.violation()) {
    std::fprintf(stderr, "%s\n", world.violation()->c_str());
    std::abort();
  }
  return 0;
}
