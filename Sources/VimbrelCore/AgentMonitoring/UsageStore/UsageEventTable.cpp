// SPDX-License-Identifier: Apache-2.0
#include "AgentMonitoring/UsageStore/UsageEventTable.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
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
constexpr unsigned wideBit = 11;

constexpr std::array countMembers{&UsageEventView::inputTokens,     &UsageEventView::outputTokens,
                                  &UsageEventView::cachedTokens,    &UsageEventView::cacheWriteTokens,
                                  &UsageEventView::reasoningTokens, &UsageEventView::totalTokens,
                                  &UsageEventView::contextWindow};

/// Has the system provide fresh memory at once. Years of events are loaded at every start, and taking a fault
/// for each of their ten thousand pages took as long as reading them. Where it cannot, nothing is lost.
void provide(void* start, std::size_t bytes) {
  static const auto page = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
  const auto first = (reinterpret_cast<std::uintptr_t>(start) + page - 1) & ~(page - 1);
  const auto last = (reinterpret_cast<std::uintptr_t>(start) + bytes) & ~(page - 1);
  if (first < last) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_POPULATE_WRITE);
}

constexpr std::uint32_t extraKeyFlag = 0x80000000U;
constexpr std::size_t fewestSlots = 1024;  // a power of two, as every size of the index

std::uint32_t fingerprintOf(std::string_view key) {
  const auto hash = std::hash<std::string_view>{}(key);
  return static_cast<std::uint32_t>(hash ^ (hash >> 32U));
}

/// Where the bytes of a UUID begin in its text.
constexpr std::array<std::uint8_t, 16> byteOffsets{0, 2, 4, 6, 9, 11, 14, 16, 19, 21, 24, 26, 28, 30, 32, 34};

using HexValues = std::array<std::uint8_t, 256>;
constexpr std::uint8_t noHex = 0x80;

constexpr HexValues hexValues(unsigned char letterA) {
  HexValues values{};
  values.fill(noHex);
  for (std::uint8_t i = 0; i < 10; ++i) values['0' + i] = i;
  for (std::uint8_t i = 0; i < 6; ++i) values[letterA + i] = static_cast<std::uint8_t>(10 + i);
  return values;
}
constexpr HexValues lowerHex = hexValues('a');
constexpr HexValues upperHex = hexValues('A');

/// Sixteen bytes of a UUID that is written in the standard form with letters of one case.
bool packUuid(std::string_view text, const HexValues& hex, std::array<unsigned char, 16>& bytes) {
  if (text.size() != 36 || text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-')
    return false;
  unsigned wrong = 0;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const unsigned high = hex[static_cast<unsigned char>(text[byteOffsets[i]])];
    const unsigned low = hex[static_cast<unsigned char>(text[byteOffsets[i] + 1U])];
    wrong |= high | low;
    bytes[i] = static_cast<unsigned char>(high << 4U | low);
  }
  return (wrong & noHex) == 0;
}

void unpackUuid(const std::array<unsigned char, 16>& bytes, const char* digits, std::array<char, 36>& text) {
  text[8] = text[13] = text[18] = text[23] = '-';
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text[byteOffsets[i]] = digits[bytes[i] >> 4U];
    text[byteOffsets[i] + 1U] = digits[bytes[i] & 15U];
  }
}

}  // namespace

std::uint32_t TextPool::intern(std::string_view text, std::uint32_t& latest) {
  if (latest < texts_.size() && texts_[latest] == text) return latest;
  if (const auto known = find(text)) return latest = *known;
  texts_.emplace_back(text);
  appendJsonString(quoted_.emplace_back(), text);
  latest = size() - 1;
  numbers_.emplace(texts_.back(), latest);
  return latest;
}

std::optional<std::uint32_t> TextPool::find(std::string_view text) const {
  const auto found = numbers_.find(text);
  return found == numbers_.end() ? std::nullopt : std::optional(found->second);
}

std::string_view TextArena::keep(std::string_view text) {
  constexpr std::size_t blockBytes = 1 << 19;
  if (text.empty()) return {};
  if (text.size() > left_) {
    const auto size = std::max(blockBytes, text.size());
    blocks_.push_back(std::make_unique_for_overwrite<char[]>(size));
    cursor_ = blocks_.back().get();
    // The first block of a young store is not filled soon.
    if (blocks_.size() > 1) provide(cursor_, size);
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
  if (usedSlots_ * 4 >= slots_.size() * 3) resizeIndex(std::max(slots_.size() * 2, fewestSlots));
}

void UsageEventTable::reserve(std::size_t keys) {
  // A hint from a file's size must not take memory that only the file's contents can justify.
  constexpr std::size_t mostKeys = 1 << 20;
  const auto slots = std::max(std::bit_ceil(std::min(keys, mostKeys) / 3 * 4 + 1), fewestSlots);
  if (slots > slots_.size()) resizeIndex(slots);
}

void UsageEventTable::resizeIndex(std::size_t slots) {
  std::vector<Slot> larger;
  larger.reserve(slots);
  provide(larger.data(), slots * sizeof(Slot));
  larger.resize(slots);
  const auto old = std::exchange(slots_, std::move(larger));
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
  if (row / rowsPerBlock == blocks_.size()) {
    blocks_.push_back(std::make_unique_for_overwrite<Block>());
    if (blocks_.size() > 1) provide(blocks_.back().get(), sizeof(Block));
  }
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
  Counts counts;
  for (std::size_t i = 0; i < countMembers.size(); ++i) {
    const auto& count = event.*countMembers[i];
    counts[i] = count.value_or(0);
    target.counts[i] = static_cast<std::int32_t>(counts[i]);
    present |= static_cast<unsigned>(count.has_value()) << i;
    present |= static_cast<unsigned>(target.counts[i] != counts[i]) << wideBit;
  }
  if ((present >> wideBit & 1U) != 0) {
    wideCounts_.insert_or_assign(row, counts);
  } else if (!wideCounts_.empty()) {
    wideCounts_.erase(row);
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
  if (packUuid(event.id, lowerHex, target.id.uuid)) {
    target.idForm = IdForm::lowerUuid;
  } else if (packUuid(event.id, upperHex, target.id.uuid)) {
    target.idForm = IdForm::upperUuid;
  } else {
    const auto kept = arena_.keep(event.id);
    target.idForm = IdForm::text;
    target.id.text = {kept.data(), static_cast<std::uint32_t>(kept.size())};
  }
  target.turn = turn.data();
  target.turnLength = static_cast<std::uint32_t>(turn.size());
  target.session = texts_.intern(event.sessionId, latestSession_);
  target.model = event.modelId ? texts_.intern(*event.modelId, latestModel_) : 0;
  target.source = texts_.intern(event.source, latestSource_);
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
  const Counts* wide = has(wideBit) ? &wideCounts_.at(row) : nullptr;
  for (std::size_t i = 0; i < countMembers.size(); ++i) {
    if (has(i)) event.*countMembers[i] = wide == nullptr ? source.counts[i] : (*wide)[i];
  }
  if (has(costBit)) event.costEstimateUSD = source.cost;
  if (has(quotaBit)) event.quotaRemainingPercent = source.quota;
  event.timestamp = instantFromUnixSeconds(source.timestamp);
  event.source = texts_.text(source.source);
  return event;
}

}  // namespace vimbrel
