// SPDX-License-Identifier: Apache-2.0
#include "Platform/Linux/ProcProcessList.h"

#include <utility>

#include "Platform/ProcessLine.h"

namespace vimbrel {
namespace {

void formatLine(std::int32_t pid, std::string_view command, std::string& line) {
  line = std::to_string(pid);
  line.push_back(' ');
  line.append(command);
}

}  // namespace

ProcProcessList::ProcProcessList(std::shared_ptr<ProcessTable> table) : table_(std::move(table)) {}

ProcProcessList::~ProcProcessList() {
  const std::lock_guard guard(table_->lock());
  for (const auto& [pid, lines] : found_) table_->unwatch(pid);
  table_->detach(*this);
}

ProcessEntries ProcProcessList::readAll() {
  const std::lock_guard guard(table_->lock());
  auto& reader = table_->reader();
  std::vector<std::int32_t> pids;
  if (!reader.isUsable() || !reader.listProcesses(pids)) return nullptr;
  auto entries = std::make_shared<std::vector<ProcessEntry>>();
  entries->reserve(pids.size());
  std::string command;
  for (const auto pid : pids) {
    const auto kind = reader.readCommand(pid, command);
    if (kind == ProcReader::Kind::gone || kind == ProcReader::Kind::unreadable) continue;
    formatLine(pid, command, line_);
    appendProcessLines(line_, *entries);
  }
  return entries;
}

ProcessEntries ProcProcessList::readRelevant(const std::function<bool(std::string_view command)>& relevant) {
  const std::lock_guard guard(table_->lock());
  if (!table_->reader().isUsable()) return nullptr;
  if (!relevant_) {
    relevant_ = relevant;
    table_->attach(*this);
  }
  table_->refresh();
  if (!entries_) {
    auto entries = std::make_shared<std::vector<ProcessEntry>>();
    for (const auto& [pid, lines] : found_) entries->insert(entries->end(), lines.begin(), lines.end());
    entries_ = std::move(entries);
  }
  return entries_;
}

void ProcProcessList::processChanged(std::int32_t pid, std::string_view command, ProcReader::Kind /*kind*/) {
  // Most commands are of no interest as they stand; only a line break could hide a relevant line in them.
  formatLine(pid, command, line_);
  lines_.clear();
  appendProcessLines(line_, lines_);
  std::erase_if(lines_, [this](const ProcessEntry& entry) { return !relevant_(entry.command); });

  const auto known = found_.find(pid);
  if (lines_.empty()) {
    if (known != found_.end()) processGone(pid);
    return;
  }
  if (known == found_.end()) table_->watch(pid);
  auto& lines = known == found_.end() ? found_[pid] : known->second;
  if (lines == lines_) return;
  lines = lines_;
  entries_.reset();
}

void ProcProcessList::processGone(std::int32_t pid) {
  if (found_.erase(pid) == 0) return;
  table_->unwatch(pid);
  entries_.reset();
}

}  // namespace vimbrel
