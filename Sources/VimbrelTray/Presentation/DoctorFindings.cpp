// SPDX-License-Identifier: Apache-2.0
#include "Presentation/DoctorFindings.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "Presentation/JsonFields.h"
#include "Say.h"

namespace vimbrel::desktop {
namespace {

int rankOf(const FindingRow& row) {
  if (row.tone == Tone::bad) return 0;
  return row.tone == Tone::warning ? 1 : 2;
}

}  // namespace

std::vector<FindingRow> makeFindingRows(const nlohmann::json& result) {
  std::vector<FindingRow> rows;
  for (const auto& finding : memberOf(result, "findings")) {
    FindingRow row;
    const auto verdict = textOf(finding, "verdict");
    if (verdict == "works") {
      row.tone = Tone::good;
      row.verdict = say("Works");
    } else if (verdict == "missing") {
      row.tone = Tone::warning;
      row.verdict = say("Missing");
    } else if (verdict == "refused") {
      row.tone = Tone::bad;
      row.verdict = say("Refused");
    } else {
      row.tone = Tone::warning;
      row.verdict = say("Attention");
    }
    row.subject = retell(textOf(finding, "subject"));
    row.explanation = retell(textOf(finding, "explanation"));
    row.remedy = retell(textOf(finding, "remedy"));
    rows.push_back(std::move(row));
  }
  std::ranges::stable_sort(rows, {}, rankOf);
  return rows;
}

}  // namespace vimbrel::desktop
