// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/LinuxExamination.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "Platform/Linux/LinuxLidSwitch.h"
#include "Platform/Linux/LinuxSleepAssertions.h"
#include "Platform/Linux/SysfsPowerSources.h"
#include "Platform/Linux/ThermalZones.h"
#include "Support/Sentence.h"

namespace vimbrel {
namespace {

using Verdict = DoctorFinding::Verdict;

std::string missingRemedy(const MechanismStatus& status, const LinuxSurroundings& surroundings) {
  if (status.name == "logind") {
    return sentence(
        "run systemd-logind on the system bus: install the packages dbus and systemd, or elogind");
  }
  if (status.detail.find("no session bus") != std::string::npos) {
    const auto address =
        "DBUS_SESSION_BUS_ADDRESS=unix:path=/run/user/" + std::to_string(::getuid()) + "/bus";
    return sentence("on a desktop, start vimbrel from its session, or set %1", {address});
  }
  if (status.name == "gnome-session" && surroundings.isDesktop("GNOME")) {
    return sentence("GNOME's session manager should answer here: log out and in again");
  }
  return "";  // Another desktop's service: nothing is wrong with its absence.
}

std::string refusedRemedy(const MechanismStatus& status) {
  if (status.name != "logind") return "";
  return sentence(
      "allow the polkit action org.freedesktop.login1.inhibit-block-idle for this user in a rule in "
      "/etc/polkit-1/rules.d");
}

DoctorFinding batteryFinding(SysfsPowerSources& powerSources) {
  const auto sources = powerSources.read();
  if (sources.empty()) {
    return {sentence("battery"), Verdict::missing,
            sentence("no battery was found: the machine counts as on AC power"), ""};
  }
  const auto& source = sources.front();
  if (!source.currentCapacity || source.maxCapacity.value_or(0) < 1) {
    return {sentence("battery"), Verdict::warning,
            sentence("the battery tells no charge: there is no cut-off when it runs low"), ""};
  }
  const auto percent = *source.currentCapacity * 100 / *source.maxCapacity;
  return {sentence("battery"), Verdict::works,
          sentence("%1 % on %2", {std::to_string(percent),
                                  source.powerSourceState.value_or(sentence("an unknown source"))}),
          ""};
}

DoctorFinding thermalFinding(const ThermalZones& zones) {
  if (zones.zoneCount() == 0) {
    return {sentence("temperature"), Verdict::missing,
            sentence("no thermal zone with trip points: there is no cut-off when the machine overheats"), ""};
  }
  return {sentence("temperature"), Verdict::works,
          sentenceCount(static_cast<std::int64_t>(zones.zoneCount()), "%1 thermal zone is watched",
                        "%1 thermal zones are watched"),
          ""};
}

DoctorFinding lidFinding(LinuxLidSwitch& lid) {
  if (!lid.hasLid())
    return {sentence("lid"), Verdict::missing, sentence("this machine has no lid switch"), ""};
  const auto closed = lid.isClosed();
  if (!closed) {
    return {sentence("lid"), Verdict::warning,
            sentence("there is a lid, but nobody tells whether it is closed"),
            sentence("run systemd-logind on the system bus")};
  }
  return {sentence("lid"), Verdict::works,
          *closed ? sentence("the lid is closed") : sentence("the lid is open"), ""};
}

void addRemarks(std::vector<DoctorFinding>& findings, const LinuxSurroundings& surroundings, bool kde,
                bool hasLid) {
  if (kde && hasLid) {
    findings.push_back({sentence("KDE and the lid"), Verdict::warning,
                        sentence("Plasma handles the lid itself and may put the machine to sleep in spite of "
                                 "what is held"),
                        sentence("in System Settings, Power Management, let closing the lid do nothing")});
  }
  if (surroundings.isDesktop("GNOME")) {
    findings.push_back(
        {sentence("GNOME and the tray"), Verdict::warning,
         sentence("GNOME shows tray icons only with an extension"),
         sentence("install gnome-shell-extension-appindicator and turn it on, or use vimbrel watch")});
  }
  if (surroundings.isRemoteLogin) {
    findings.push_back({sentence("remote login"), Verdict::warning,
                        sentence("over SSH, logind's idle lock is allowed, but locks on sleep and on the lid "
                                 "are refused without a polkit rule"),
                        sentence("run vimbrel in the desktop session, or as a user service")});
  }
}

}  // namespace

LinuxSurroundings LinuxSurroundings::fromProcess() {
  const char* desktop = std::getenv("XDG_CURRENT_DESKTOP");
  return {desktop == nullptr ? "" : desktop, std::getenv("SSH_CONNECTION") != nullptr};
}

bool LinuxSurroundings::isDesktop(std::string_view name) const {
  std::string_view rest = currentDesktop;
  while (!rest.empty()) {
    const auto end = std::min(rest.find(':'), rest.size());
    if (rest.substr(0, end) == name) return true;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return false;
}

DoctorFinding findingOf(const MechanismStatus& status, const LinuxSurroundings& surroundings) {
  DoctorFinding finding{status.name, Verdict::works, status.detail, ""};
  switch (status.state) {
    case MechanismState::granted:
      if (finding.explanation.empty())
        finding.explanation = sentence("it was granted, and its service lists it");
      break;
    case MechanismState::available:
      finding.explanation =
          sentence("its service answers; it is left out because it would keep the screen on");
      break;
    case MechanismState::refused:
      finding.verdict = Verdict::refused;
      finding.remedy = refusedRemedy(status);
      break;
    case MechanismState::missing:
      finding.verdict = Verdict::missing;
      finding.remedy = missingRemedy(status, surroundings);
      break;
  }
  return finding;
}

std::vector<DoctorFinding> examineLinux(LinuxSleepAssertions& assertions, SysfsPowerSources& powerSources,
                                        ThermalZones& thermalZones, LinuxLidSwitch& lid) {
  const auto surroundings = LinuxSurroundings::fromProcess();
  const auto system = assertions.create(AssertionType::preventUserIdleSystemSleep, "Vimbrel: examination");
  const auto display = assertions.create(AssertionType::preventUserIdleDisplaySleep, "Vimbrel: examination");
  std::vector<DoctorFinding> findings;
  for (const auto& status : assertions.mechanisms()) findings.push_back(findingOf(status, surroundings));
  // A refusal leaves no handle, and its mechanism no trace of it beyond the error.
  if (!system && !display && system.error().fault == AssertionFault::denied) {
    for (auto& finding : findings) {
      if (finding.subject != "logind" || finding.verdict != Verdict::works) continue;
      finding = findingOf({"logind", MechanismState::refused, system.error().detail}, surroundings);
    }
  }
  if (display) assertions.release(*display);
  if (system) assertions.release(*system);
  findings.push_back(batteryFinding(powerSources));
  findings.push_back(thermalFinding(thermalZones));
  findings.push_back(lidFinding(lid));
  addRemarks(findings, surroundings, assertions.isKde(), lid.hasLid());
  return findings;
}

}  // namespace vimbrel
