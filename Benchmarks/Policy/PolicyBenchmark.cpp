// SPDX-License-Identifier: Apache-2.0
// One evaluation of the wake policy with 1,000 sessions. The reference is the least that any answer needs:
// one pass over the same table that reads each session's state and age. Half of the sessions are at work, of
// all agents, so that every branch of the pass is taken and the reason names all of them.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <vector>

#include "BenchmarkTable.h"
#include "Power/WakePolicyEngine.h"

namespace {

using namespace vimbrel;
using Nanoseconds = std::chrono::duration<double, std::nano>;

constexpr double targetMicroseconds = 50;
constexpr int pairs = 201;
constexpr int repetitions = 50;

PolicyEvaluationContext thousandSessions() {
  PolicyEvaluationContext context;
  context.now = instantFromUnixSeconds(1'800'000'000);
  std::vector<AgentSession> sessions(1000);
  for (std::size_t i = 0; i < sessions.size(); ++i) {
    sessions[i].id = "session-" + std::to_string(i * 7919 % 1000);
    sessions[i].agentType = allAgentTypes[i % allAgentTypes.size()];
    sessions[i].state = i % 2 == 0 ? AgentState::working : AgentState::idle;
    sessions[i].lastEventAt = context.now - Seconds{static_cast<double>(i)};
  }
  context.sessions = SessionSnapshot::of(sessions);
  return context;
}

/// Keeps the compiler from dropping what is computed.
volatile std::int64_t sink = 0;

double microsecondsEach(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < repetitions; ++i) work();
  return Nanoseconds(std::chrono::steady_clock::now() - start).count() / repetitions / 1000;
}

double median(std::vector<double> values) {
  std::ranges::nth_element(values, values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2));
  return values[values.size() / 2];
}

}  // namespace

int main() {
  const auto context = thousandSessions();
  const WakePolicyEngine engine;
  const auto ours = [&] { sink = engine.evaluate(context).asHold()->activeAgentCount; };
  const auto explained = [&] { sink = static_cast<std::int64_t>(engine.explain(context).rules.size()); };
  const auto reference = [&] {
    std::int64_t count = 0;
    for (const auto& session : context.sessions.entries()) {
      count += static_cast<std::int64_t>(session->isWorking() &&
                                         (context.now - session->lastEventAt).count() <= 900);
    }
    sink = count;
  };

  std::vector<double> oursEach;
  std::vector<double> referenceEach;
  std::vector<double> explainedEach;
  std::vector<double> ratios;
  for (int i = 0; i < pairs; ++i) {
    oursEach.push_back(microsecondsEach(ours));
    referenceEach.push_back(microsecondsEach(reference));
    explainedEach.push_back(microsecondsEach(explained));
    ratios.push_back(oursEach.back() / referenceEach.back());
  }
  const double result = median(oursEach);
  printBenchmarkRow({"policy: one evaluation, 1,000 sessions", figure(result, "us"),
                     figure(median(referenceEach), "us") + " bare pass", median(ratios),
                     "< " + figure(targetMicroseconds, "us"), result < targetMicroseconds});
  printBenchmarkRow({"policy: with the account of every rule", figure(median(explainedEach), "us"),
                     figure(median(referenceEach), "us") + " bare pass",
                     median(explainedEach) / median(referenceEach), "-", std::nullopt});
  return result < targetMicroseconds ? 0 : 1;
}
