// SPDX-License-Identifier: Apache-2.0
// The usage store's file and its journal, as anything may have left them on disk. What is read must come out
// the same when it is written and read again.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "AgentMonitoring/UsageStore/UsageStoreFormat.h"
#include "Support/Fd.h"

namespace {

using namespace vimbrel;

std::string written(const UsageLedger& contents) {
  const Fd file(::memfd_create("store", MFD_CLOEXEC));
  OutputBuffer output(file.get());
  usageStoreFormat::write(output, contents);
  if (!output.flush()) std::abort();
  std::string text(output.bytes(), '\0');
  if (::pread(file.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) std::abort();
  return text;
}

void requireReadable(const UsageLedger& ledger) {
  const auto text = written(ledger);
  JsonPullReader reader(text);
  const auto reread = usageStoreFormat::read(reader);
  if (!reread || reread->ledger.events.size() != ledger.events.size() ||
      reread->ledger.sessions.size() != ledger.sessions.size()) {
    std::abort();
  }
}

void checkStore(std::string_view text) {
  // In pieces of seven bytes, so that every token is cut somewhere.
  std::size_t at = 0;
  JsonPullReader reader([&](char* buffer, std::size_t size) {
    const auto count = std::min({size, text.size() - at, std::size_t{7}});
    text.copy(buffer, count, at);
    at += count;
    return static_cast<std::ptrdiff_t>(count);
  });
  JsonPullReader whole(text);
  const auto inPieces = usageStoreFormat::read(reader);
  const auto atOnce = usageStoreFormat::read(whole);
  if (inPieces.has_value() != atOnce.has_value()) std::abort();
  if (!atOnce) return;
  requireReadable(atOnce->ledger);
  // Summed anew, as a journal's lines are: no sum may be a number that the file cannot hold.
  UsageLedger summed;
  UsageEventTable::Scratch scratch;
  for (UsageEventTable::Row row = 0; row < atOnce->ledger.events.size(); ++row) {
    (void)summed.accept(atOnce->ledger.events.view(row, scratch));
  }
  requireReadable(summed);
}

void checkJournal(std::string_view line) {
  const auto event = usageStoreFormat::readJournalLine(line);
  if (!event) return;
  std::string text;
  usageStoreFormat::appendJournalLine(text, event->view());
  text.pop_back();
  const auto again = usageStoreFormat::readJournalLine(text);
  if (!again || again->deduplicationKey().empty() || again->totalTokens != event->totalTokens) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  checkStore(text);
  checkJournal(text);
  return 0;
}
