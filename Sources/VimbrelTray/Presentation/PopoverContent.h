// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Presentation/Link.h"
#include "Presentation/Tone.h"

namespace vimbrel::desktop {

/// How much is left of something, as a bar.
struct BudgetBar {
  std::string label;            ///< "Context", "Quota"
  std::string text;             ///< "60 % left"
  std::string detail;           ///< "resets Sat 31 Jan, 06:00"; empty when there is nothing to add
  double remainingPercent = 0;  ///< 0 to 100
  bool isLow = false;           ///< carries the low-budget mark
  bool operator==(const BudgetBar&) const = default;
};

struct SessionRow {
  std::string id;
  VimbrelVisualState visual = VimbrelVisualState::idle;
  std::string title;   ///< its directory, or what is known instead
  std::string detail;  ///< "Working · 5 s ago · pid 4711"
  bool operator==(const SessionRow&) const = default;
};

struct HostRow {
  std::string name;
  std::vector<SessionRow> sessions;
  bool operator==(const HostRow&) const = default;
};

/// One agent family.
struct FamilyRow {
  AgentType agent = AgentType::custom;
  VimbrelVisualState visual = VimbrelVisualState::idle;
  std::string name;
  std::string state;     ///< "Working"
  std::string subtitle;  ///< "2 sessions active"
  std::string budget;    ///< empty when it would repeat the subtitle
  std::vector<BudgetBar> bars;
  std::string alert;  ///< "Account quota is low (18% remaining)"; empty when nothing is low
  std::vector<HostRow> hosts;
  bool operator==(const FamilyRow&) const = default;
};

struct PowerLine {
  std::optional<int> batteryPercent;
  int floorPercent = 15;
  bool isOnAC = true;
  bool isCharging = false;
  std::string power;  ///< "Battery 71 %, 3 h 10 min left"
  Tone powerTone = Tone::plain;
  std::string heat;
  Tone heatTone = Tone::plain;
  std::string lid;
  Tone lidTone = Tone::plain;
  std::string lidRemedy;  ///< what to do about the lid; empty when there is nothing to do
  bool operator==(const PowerLine&) const = default;
};

struct PopoverContent {
  enum class Offer : std::uint8_t { nothing, start, waitForStart, connectAgents };
  VimbrelDisplayState display;
  bool isAbsent = false;
  Tone tone = Tone::plain;
  std::string title;                  ///< "Awake", "Sleep allowed", "Paused", …
  std::string reason;                 ///< the decision's reason
  std::optional<Instant> countsFrom;  ///< a running time is shown beside the title, since then
  std::vector<std::string> notices;   ///< what the user has to know; a sentence each
  std::vector<FamilyRow> families;
  PowerLine power;
  Offer offer = Offer::nothing;  ///< what the one large button does when there are no rows
  std::string offerText;
  bool masterEnabled = true;
  bool manualHoldEnabled = false;
  bool preventDisplaySleep = false;
  bool operator==(const PopoverContent&) const = default;
};

/// `now` enters through ages and pauses only; ask again at most once a second.
[[nodiscard]] PopoverContent makePopoverContent(const Situation& situation, Instant now);

[[nodiscard]] PowerLine makePowerLine(const PublishedState& state);
[[nodiscard]] FamilyRow makeFamilyRow(const AgentFamilyPresentation& family, Instant now);

}  // namespace vimbrel::desktop
