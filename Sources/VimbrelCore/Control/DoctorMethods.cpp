// SPDX-License-Identifier: Apache-2.0
#include "Control/DoctorMethods.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "Control/RpcResult.h"
#include "Support/Sentence.h"

namespace vimbrel {

using nlohmann::json;

namespace {

using Verdict = DoctorFinding::Verdict;

std::string_view rawValue(Verdict verdict) {
  switch (verdict) {
    case Verdict::works:
      return "works";
    case Verdict::missing:
      return "missing";
    case Verdict::refused:
      return "refused";
    case Verdict::warning:
      break;
  }
  return "warning";
}

DoctorFinding shortcutFinding(const GlobalShortcutController& shortcut) {
  if (shortcut.isMonitoring()) {
    return {sentence("global shortcut"), Verdict::works,
            sentence("Alt+Super+L switches protection on and off"), ""};
  }
  if (shortcut.refusal().empty())
    return {sentence("global shortcut"), Verdict::missing, sentence("it is not watched"), ""};
  return {sentence("global shortcut"), Verdict::missing, shortcut.refusal(),
          sentence("start Vimbrel in the desktop session with these keys free, or bind other keys there to: "
                   "vimbrel settings set masterEnabled off")};
}

/// What the application knows of itself, beside what the platform finds out about the machine.
std::vector<DoctorFinding> ownFindings(const ControlledApplication& application) {
  auto& coordinator = application.coordinator;
  std::vector<DoctorFinding> findings;
  if (const auto& error = coordinator.hookReceiverError()) {
    findings.push_back({sentence("hook socket"), Verdict::warning, error->text,
                        sentence("end whatever else uses the socket, then start Vimbrel again")});
  } else {
    findings.push_back({sentence("hook socket"), Verdict::works, sentence("agents' hooks are heard"), ""});
  }
  if (application.shortcut != nullptr) findings.push_back(shortcutFinding(*application.shortcut));
  auto& settings = coordinator.settings();
  const auto warnings = settings.warnings();
  for (const auto& warning : warnings) {
    findings.push_back(
        {sentence("settings"), Verdict::warning, warning, sentence("correct %1", {settings.location()})});
  }
  if (warnings.empty()) findings.push_back({sentence("settings"), Verdict::works, settings.location(), ""});
  return findings;
}

RpcResult examine(const ControlledApplication& application, const std::optional<DoctorFinding>& closedLid) {
  auto findings =
      application.platform.examine ? application.platform.examine() : std::vector<DoctorFinding>{};
  if (closedLid) findings.push_back(*closedLid);
  for (auto& finding : ownFindings(application)) findings.push_back(std::move(finding));
  json list = json::array();
  for (const auto& finding : findings) {
    list.push_back({{"subject", finding.subject},
                    {"verdict", rawValue(finding.verdict)},
                    {"explanation", finding.explanation},
                    {"remedy", finding.remedy}});
  }
  const auto mechanisms = application.platform.assertions->mechanisms();
  const bool isSimulated = application.platform.assertions->isSimulated();
  const bool canHold = !isSimulated && std::ranges::any_of(mechanisms, [](const MechanismStatus& mechanism) {
    return mechanism.state == MechanismState::available || mechanism.state == MechanismState::granted;
  });
  return json{{"findings", std::move(list)}, {"canHold", canHold}, {"simulated", isSimulated}};
}

}  // namespace

void addDoctorMethods(ControlServer& server, const ControlledApplication& application) {
  server.methods().addLater("doctor", [application](const json&, RpcReply reply) {
    if (application.deepHold == nullptr) return reply(examine(application, std::nullopt));
    // The helper is tried out in the background; the rest follows at once when that is done.
    application.deepHold->examine(
        [application, held = std::make_shared<RpcReply>(std::move(reply))](const DoctorFinding& closedLid) {
          (*held)(examine(application, closedLid));
        });
  });
}

}  // namespace vimbrel
