// SPDX-License-Identifier: Apache-2.0
#include "Platform/Simulated/SimulatedWorldFile.h"

#include <utility>

#include "Support/AtomicFile.h"

namespace vimbrel {
namespace {

constexpr std::size_t maximumFileBytes = 4U << 20U;

}  // namespace

SimulatedWorldFile::SimulatedWorldFile(std::string path, SimulatedMachine& machine)
    : path_(std::move(path)), machine_(machine) {
  reload();
}

void SimulatedWorldFile::watch(TaskQueue& mainQueue) {
  watch_ = FileWatch::start(path_, mainQueue, [this] { reload(); });
  if (!watch_.isActive()) logger_.error("Changes of %s are not followed", path_.c_str());
  reload();
}

void SimulatedWorldFile::reload() {
  const auto refuse = [&](std::string problem) {
    problem += "; the simulated machine stays as it was";
    if (machine_.problem() != problem) logger_.error("%s", problem.c_str());
    machine_.setProblem(std::move(problem));
  };
  const auto text = readFile(path_, maximumFileBytes);
  if (!text) return refuse(text.error().text());
  auto document = parseSimulatedWorld(*text);
  if (!document) return refuse(path_ + ": " + document.error());
  for (const auto& key : document->unknownKeys) {
    logger_.info("%s: \"%s\" means nothing and is ignored", path_.c_str(), key.c_str());
  }
  machine_.setProblem(std::nullopt);
  machine_.setWorld(std::move(document->world));
}

}  // namespace vimbrel
