// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "Presentation/Tone.h"

namespace vimbrel::desktop {

/// One finding of the doctor, for people.
struct FindingRow {
  Tone tone = Tone::plain;
  std::string verdict;  ///< "Works", "Missing", …
  std::string subject;
  std::string explanation;
  std::string remedy;  ///< what to do; empty when there is nothing to do
  bool operator==(const FindingRow&) const = default;
};

/// From the result of "doctor": what needs doing comes first.
[[nodiscard]] std::vector<FindingRow> makeFindingRows(const nlohmann::json& result);

}  // namespace vimbrel::desktop
