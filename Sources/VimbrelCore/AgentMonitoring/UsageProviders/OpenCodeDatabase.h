// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "AgentMonitoring/TurnInterruption.h"
#include "Domain/ModelRateCard.h"
#include "Domain/UsageEvent.h"

namespace vimbrel {

/// One row of OpenCode's table of messages. The texts live as long as the call that hands it out.
struct OpenCodeRow {
  std::string_view id;
  std::string_view sessionId;
  std::int64_t timeCreated = 0;  ///< milliseconds since 1970
  std::string_view data;         ///< a JSON object
};

/// OpenCode's database, opened anew for reading at each call and never written.
class OpenCodeDatabase {
 public:
  explicit OpenCodeDatabase(std::string path) : path_(std::move(path)) {}

  [[nodiscard]] const std::string& path() const { return path_; }
  /// The 25 newest messages that carry tokens, newest first. False when the database cannot be read now.
  bool newestMessages(const std::function<void(const OpenCodeRow&)>& handler) const;
  /// Every message that carries tokens, in no order.
  bool allMessages(const std::function<void(const OpenCodeRow&)>& handler) const;
  /// Every session with the directory it belongs to.
  bool sessionDirectories(
      const std::function<void(std::string_view sessionId, std::string_view directory)>& handler) const;

  /// Whether another session started this one as its helper; such a session ends by itself while the one that
  /// started it works on. False when that cannot be read.
  [[nodiscard]] bool isChildSession(const std::string& sessionId) const;

  /// Changes whenever the database was written to; equal values mean that nothing was.
  struct Version {
    std::int64_t main[3] = {};
    std::int64_t log[3] = {};
    bool operator==(const Version&) const = default;
  };
  /// Absent when there is no database.
  [[nodiscard]] std::optional<Version> version() const;

 private:
  std::string path_;
};

/// A message that carries usage.
struct OpenCodeUsage {
  UsageEvent event;
  std::int64_t contextWindow = 0;
  bool isCostEstimated = true;
};

/// Reads messages. Not for several threads at once.
class OpenCodeMessageParser {
 public:
  explicit OpenCodeMessageParser(const ModelRateCard& card);
  ~OpenCodeMessageParser();
  /// Absent for a row without usable tokens.
  std::optional<OpenCodeUsage> parse(const OpenCodeRow& row, Instant now);
  /// The end of a turn that its user aborted. Absent for every other row, which costs next to nothing.
  std::optional<TurnInterruption> interruption(const OpenCodeRow& row);

 private:
  struct Json;
  const ModelRateCard& card_;
  std::unique_ptr<Json> json_;
};

}  // namespace vimbrel
