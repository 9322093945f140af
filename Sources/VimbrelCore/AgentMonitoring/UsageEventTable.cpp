// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageEventTable.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <utility>

#include "Support/JsonWriter.h"

namespace vimbrel {
namespace {

/// Bits of `PackedRow::present`; the first seven are those of the counts.
constexpr unsigned turnBit = 7;
constexpr unsigned modelBit = 8;
constexpr unsigned costBit = 9;
constexpr unsigned quotaBit = 10;

constexpr std::array countMembers{&UsageEventView::inputTokens,     &UsageEventView::outputTokens,
                                  &UsageEventView::cachedTokens,    &UsageEventView::cacheWriteTokens,
                                  &UsageEventView::reasoningTokens, &UsageEventView::totalTokens,
                                  &UsageEventView::contextWindow};

constexpr std::uint32_t extraKeyFlag = 0x80000000U;

std::uint32_t fingerprintOf(std::string_view key) {
  const auto hash = std::hash<std::string_view>{}(key);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32U));
}

int hexValue(char c, char letterA) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= letterA && c < letterA + 6) return c - letterA + 10;
  return -1;
}

constexpr bool isDash(std::size_t position) {
  return position == 8 || position == 13 || position == 18 || position == 23;
}

/// Sixteen bytes of a UUID that is written in the standard form with letters of one case.
bool packUuid(std::string_view text, char letterA, std::array<unsigned char, 16>& bytes) {
  if (text.size() != 36) return false;
  std::size_t count = 0;
  for (std::size_t i = 0; i < 36;) {
    if (isDash(i)) {
      if (text[i++] != '-') return false;
      continue;
    }
    const int high = hexValue(text[i], letterA);
    const int low = hexValue(text[i + 1], letterA);
    if (high < 0 || low < 0) return false;
    bytes[count++] = static_cast<unsigned char>(high * 16 + low);
    i += 2;
  }
  return true;
}

void unpackUuid(const std::array<unsigned char, 16>& bytes, const char* digits, std::array<char, 36>& text) {
  std::size_t at = 0;
  for (const auto byte : bytes) {
    if (isDash(at)) text[at++] = '-';
    text[at++] = digits[byte >> 4U];
    text[at++] = digits[byte & 15U];
  }
}

}  // namespace

std::uint32_t TextPool::intern(std::string_view text) {
  if (latest_ < texts_.size() && texts_[latest_] == text) return latest_;
  if (const auto known = find(text)) return latest_ = *known;
  texts_.emplace_back(text);
  appendJsonString(quoted_.emplace_back(), text);
  latest_ = size() - 1;
  numbers_.emplace(texts_.back(), latest_);
  return latest_;
}

std::optional<std::uint32_t> TextPool::find(std::string_view text) const {
  const auto found = numbers_.find(text);
  return found == numbers_.end() ? std::nullopt : std::optional(found->second);
}

std::string_view TextArena::keep(std::string_view text) {
  constexpr std::size_t blockBytes = 1 << 16;
  if (text.empty()) return {};
  if (text.size() > left_) {
    const auto size = std::max(blockBytes, text.size());
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    cursor_ = blocks_.back().get();
    left_ = size;
  }
  std::memcpy(cursor_, text.data(), text.size());
  const std::string_view kept(cursor_, text.size());
  cursor_ += text.size();
  left_ -= text.size();
  return kept;
}

std::optional<UsageEventTable::Known> UsageEventTable::find(std::string_view key) const {
  if (slots_.empty()) return std::nullopt;
  const auto reference = slots_[slotOf(key, fingerprintOf(key))].reference;
  if (reference == 0) return std::nullopt;
  if ((reference & extraKeyFlag) != 0) return Known{};
  return Known{reference - 1};
}

bool UsageEventTable::hasKey(std::uint32_t reference, std::string_view key) const {
  if ((reference & extraKeyFlag) != 0) return extraKeys_[reference & ~extraKeyFlag] == key;
  if (hasTurnKey(reference - 1, key)) return true;
  Scratch scratch;
  key_.clear();
  view(reference - 1, scratch).appendDeduplicationKey(key_);
  return key_ == key;
}

bool UsageEventTable::hasTurnKey(Row row, std::string_view key) const {
  const auto take = [&](std::string_view part) {
    if (!key.starts_with(part)) return false;
    key.remove_prefix(part.size());
    return true;
  };
  const auto last = turn(row);
  return !last.empty() && take(rawValue(agent(row))) && take("_") && take(texts_.text(packed(row).session)) &&
         take("_") && key == last;
}

std::size_t UsageEventTable::slotOf(std::string_view key, std::uint32_t fingerprint) const {
  const auto mask = slots_.size() - 1;
  for (std::size_t i = fingerprint & mask;; i = (i + 1) & mask) {
    const auto& slot = slots_[i];
    if (slot.reference == 0) return i;
    if (slot.fingerprint == fingerprint && hasKey(slot.reference, key)) return i;
  }
}

void UsageEventTable::growIndex() {
  if (usedSlots_ * 4 < slots_.size() * 3) return;
  const auto old = std::exchange(slots_, std::vector<Slot>(std::max<std::size_t>(slots_.size() * 2, 1024)));
  const auto mask = slots_.size() - 1;
  for (const auto& slot : old) {
    if (slot.reference == 0) continue;
    std::size_t i = slot.fingerprint & mask;
    while (slots_[i].reference != 0) i = (i + 1) & mask;
    slots_[i] = slot;
  }
}

UsageEventTable::Row UsageEventTable::append(const UsageEventView& event) {
  const Row row = size_++;
  if (row / rowsPerBlock == blocks_.size()) blocks_.push_back(std::make_unique_for_overwrite<Block>());
  pack(row, event, arena_.keep(event.turnId.value_or(std::string_view{})));
  growIndex();
  newKey_.clear();
  event.appendDeduplicationKey(newKey_);
  const auto fingerprint = fingerprintOf(newKey_);
  auto& slot = slots_[slotOf(newKey_, fingerprint)];
  if (slot.reference == 0) ++usedSlots_;
  if (slot.reference == 0 || (slot.reference & extraKeyFlag) != 0) slot = {fingerprint, row + 1};
  return row;
}

void UsageEventTable::replace(Row row, const UsageEventView& event) {
  const auto& old = packed(row);
  const auto turn = event.turnId.value_or(std::string_view{});
  const std::string_view oldTurn(old.turn, old.turnLength);
  pack(row, event, turn == oldTurn ? oldTurn : arena_.keep(turn));
}

void UsageEventTable::addKey(std::string_view key) {
  growIndex();
  const auto fingerprint = fingerprintOf(key);
  auto& slot = slots_[slotOf(key, fingerprint)];
  if (slot.reference != 0) return;
  slot = {fingerprint, extraKeyFlag | static_cast<std::uint32_t>(extraKeys_.size())};
  ++usedSlots_;
  extraKeys_.push_back(arena_.keep(key));
}

void UsageEventTable::pack(Row row, const UsageEventView& event, std::string_view turn) {
  auto& block = *blocks_[row / rowsPerBlock];
  auto& target = block.rows[row % rowsPerBlock];
  unsigned present = 0;
  for (std::size_t i = 0; i < countMembers.size(); ++i) {
    const auto& count = event.*countMembers[i];
    target.counts[i] = count.value_or(0);
    present |= static_cast<unsigned>(count.has_value()) << i;
  }
  present |= static_cast<unsigned>(event.turnId.has_value()) << turnBit;
  present |= static_cast<unsigned>(event.modelId.has_value()) << modelBit;
  present |= static_cast<unsigned>(event.costEstimateUSD.has_value()) << costBit;
  present |= static_cast<unsigned>(event.quotaRemainingPercent.has_value()) << quotaBit;
  target.present = static_cast<std::uint16_t>(present);
  target.cost = event.costEstimateUSD.value_or(0);
  target.quota = event.quotaRemainingPercent.value_or(0);
  target.timestamp = unixSeconds(event.timestamp);
  block.earliest = std::min(block.earliest, target.timestamp);
  block.latest = std::max(block.latest, target.timestamp);
  target.agent = event.agentType;
  if (packUuid(event.id, 'a', target.id.uuid)) {
    target.idForm = IdForm::lowerUuid;
  } else if (packUuid(event.id, 'A', target.id.uuid)) {
    target.idForm = IdForm::upperUuid;
  } else {
    const auto kept = arena_.keep(event.id);
    target.idForm = IdForm::text;
    target.id.text = {kept.data(), static_cast<std::uint32_t>(kept.size())};
  }
  target.turn = turn.data();
  target.turnLength = static_cast<std::uint32_t>(turn.size());
  target.session = texts_.intern(event.sessionId);
  target.model = event.modelId ? texts_.intern(*event.modelId) : 0;
  target.source = texts_.intern(event.source);
}

std::optional<std::uint32_t> UsageEventTable::modelNumber(Row row) const {
  const auto& source = packed(row);
  return (source.present >> modelBit & 1U) != 0 ? std::optional(source.model) : std::nullopt;
}

UsageEventView UsageEventTable::view(Row row, Scratch& scratch) const {
  const auto& source = packed(row);
  const auto has = [&](std::size_t bit) { return (source.present >> bit & 1U) != 0; };
  UsageEventView event;
  if (source.idForm == IdForm::text) {
    event.id = {source.id.text.start, source.id.text.length};
  } else {
    unpackUuid(source.id.uuid, source.idForm == IdForm::lowerUuid ? "0123456789abcdef" : "0123456789ABCDEF",
               scratch.id);
    event.id = {scratch.id.data(), scratch.id.size()};
  }
  event.agentType = source.agent;
  event.sessionId = texts_.text(source.session);
  if (has(turnBit)) event.turnId = std::string_view(source.turn, source.turnLength);
  if (has(modelBit)) event.modelId = texts_.text(source.model);
  for (std::size_t i = 0; i < countMembers.size(); ++i) {
    if (has(i)) event.*countMembers[i] = source.counts[i];
  }
  if (has(costBit)) event.costEstimateUSD = source.cost;
  if (has(quotaBit)) event.quotaRemainingPercent = source.quota;
  event.timestamp = instantFromUnixSeconds(source.timestamp);
  event.source = texts_.text(source.source);
  return event;
}

}  // namespace vimbrel
