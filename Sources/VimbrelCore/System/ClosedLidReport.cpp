// SPDX-License-Identifier: Apache-2.0
#include "System/ClosedLidReport.h"

#include "Support/Sentence.h"

namespace vimbrel {

std::string_view rawValue(LidCover cover) {
  switch (cover) {
    case LidCover::off:
      return "off";
    case LidCover::notNeeded:
      return "notNeeded";
    case LidCover::covered:
      return "covered";
    case LidCover::uncovered:
      break;
  }
  return "uncovered";
}

std::string remedyForRefusal(std::string_view refusal, bool isHelperInstalled) {
  if (!isHelperInstalled) {
    return sentence(
        "install the helper: systemctl enable --now vimbrel-helper.socket as root, or run "
        "\"vimbrel-helper --user\"; then start Vimbrel again");
  }
  if (refusal.find("polkit asks") != refusal.npos || refusal.find("polkit does not allow") != refusal.npos) {
    return sentence(
        "use Vimbrel in the local session that is active, or let an administrator allow "
        "com.vimbrel.helper.hold in a polkit rule");
  }
  if (refusal.find("without polkit") != refusal.npos) {
    return sentence("join the group that owns the helper's socket, or install polkit");
  }
  if (refusal.find("does not answer") != refusal.npos)
    return sentence("restart the helper: systemctl restart vimbrel-helper");
  if (refusal.find("does not let the helper") != refusal.npos) {
    return sentence("see the helper's log: journalctl -u vimbrel-helper");
  }
  return {};
}

ClosedLidReport describeClosedLid(const ClosedLidFacts& facts) {
  ClosedLidReport report;
  const auto* hold = facts.decision.asHold();
  const bool isWanted = hold != nullptr && hold->requiresDeepHold;
  const auto& status = facts.status;
  const bool isInstalled = status && status->isHelperInstalled;

  if (status && status->isDeepHoldActive && status->currentSystemSleepDisabled) {
    report.cover = LidCover::covered;
    report.coveredBy = facts.isSystemHelper ? sentence("the system's helper") : sentence("your own helper");
    if (status->activeLeaseId != facts.ownLease)
      report.coveredBy = sentence("%1, for somebody else", {*report.coveredBy});
    report.until = status->leaseExpiresAt;
    report.explanation = sentence("the lid may be closed");
    return report;
  }
  if (isWanted) {
    report.cover = LidCover::uncovered;
    report.explanation = facts.refusal.empty()
                             ? sentence("closing the lid suspends the machine; the helper was not heard yet")
                             : sentence("closing the lid suspends the machine: %1", {facts.refusal});
    report.remedy = remedyForRefusal(facts.refusal, isInstalled || facts.refusal.empty());
    return report;
  }
  if (!facts.enabled) {
    report.explanation = sentence("closing the lid suspends the machine");
    report.remedy = sentence("switch deepLidProtectionEnabled on to keep working with the lid closed");
    return report;
  }
  report.cover = LidCover::notNeeded;
  report.explanation = sentence("nothing is held, so closing the lid suspends the machine");
  if (status && !isInstalled) {
    report.explanation = sentence(
        "nothing is held, so closing the lid suspends the machine; no helper is installed to cover it later");
    report.remedy = remedyForRefusal("", false);
  }
  return report;
}

}  // namespace vimbrel
