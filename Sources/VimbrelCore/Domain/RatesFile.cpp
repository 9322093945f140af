// SPDX-License-Identifier: Apache-2.0
#include "Domain/RatesFile.h"

#include <cerrno>
#include <nlohmann/json.hpp>

#include "Support/AtomicFile.h"
#include "Support/Directories.h"
#include "Support/Sentence.h"
#include "Support/StrictJson.h"

namespace vimbrel::ratesFile {
namespace {

// The dearest model costs a thousandth of this; more is a slip, such as a price for a thousand tokens.
constexpr double highestPrice = 1e6;
constexpr std::int64_t largestContextWindow = 1'000'000'000;

std::expected<ModelRateCard::Row, std::string> rowFrom(const nlohmann::json& value) {
  const auto name = value.is_object() && value.contains("model") && value["model"].is_string()
                        ? value["model"].get<std::string>()
                        : std::string("an entry without a \"model\"");
  StrictJsonObject fields(value, name);
  ModelRateCard::Row row;
  row.key = fields.string("model");
  row.rate.inputPerMillionUSD = fields.number("input");
  row.rate.outputPerMillionUSD = fields.number("output");
  row.rate.cacheReadPerMillionUSD = fields.optionalNumber("cacheRead").value_or(row.rate.inputPerMillionUSD);
  row.rate.cacheWritePerMillionUSD =
      fields.optionalNumber("cacheWrite").value_or(row.rate.inputPerMillionUSD);
  row.rate.reasoningPerMillionUSD = fields.optionalNumber("reasoning").value_or(row.rate.outputPerMillionUSD);
  row.contextWindow = fields.optionalInteger("contextWindow");
  if (row.key.find_first_not_of(" \t\r\n") == std::string::npos) fields.fail("model", "is empty");
  for (const auto& [key, price] :
       {std::pair("input", row.rate.inputPerMillionUSD), std::pair("output", row.rate.outputPerMillionUSD),
        std::pair("cacheRead", row.rate.cacheReadPerMillionUSD),
        std::pair("cacheWrite", row.rate.cacheWritePerMillionUSD),
        std::pair("reasoning", row.rate.reasoningPerMillionUSD)}) {
    if (!(price >= 0 && price <= highestPrice)) fields.fail(key, "is no price for a million tokens");
  }
  if (row.contextWindow && (*row.contextWindow < 1 || *row.contextWindow > largestContextWindow)) {
    fields.fail("contextWindow", "is no number of tokens");
  }
  if (fields.error()) return std::unexpected(*fields.error());
  return row;
}

}  // namespace

std::string defaultPath() { return directories::configuration() + "/com.vimbrel.app/rates.json"; }

std::expected<std::vector<ModelRateCard::Row>, std::string> parse(std::string_view text) {
  const auto document = parseJson(text);
  if (!document || !document->is_object()) return std::unexpected(sentence("it is not a JSON object"));
  const auto models = document->find("models");
  if (models == document->end() || !models->is_array()) {
    return std::unexpected("it has no list \"models\"");
  }
  std::vector<ModelRateCard::Row> rows;
  for (const auto& value : *models) {
    auto row = rowFrom(value);
    if (!row) return std::unexpected(row.error());
    rows.push_back(*std::move(row));
  }
  return rows;
}

std::expected<ModelRateCard, std::string> load(const std::string& path) {
  const auto unusable = [&](const std::string& why) {
    return std::unexpected(sentence("the prices in %1 cannot be used: %2", {path, why}));
  };
  const auto text = readFile(path, std::size_t{1} << 20U);
  if (!text) {
    if (text.error().code == ENOENT) return ModelRateCard::builtIn();
    return unusable(text.error().text());
  }
  auto rows = parse(*text);
  if (!rows) return unusable(rows.error());
  return ModelRateCard::builtIn().with(*std::move(rows));
}

}  // namespace vimbrel::ratesFile
