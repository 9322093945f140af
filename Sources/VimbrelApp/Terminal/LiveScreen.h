// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Support/Instant.h"
#include "Terminal/FullScreen.h"
#include "Terminal/Palette.h"

namespace vimbrel {

/// The live view on the whole terminal: the last state it was given, drawn when it is asked to.
class LiveScreen {
 public:
  /// What the key p pauses for; `vimbrel pause` takes any other time.
  static constexpr double pauseKeySeconds = 45.0 * 60;

  /// `quitKey` says what the key q does; the others are the same in every live view.
  explicit LiveScreen(std::string quitKey);
  ~LiveScreen();

  void setState(const nlohmann::json& state);
  /// A sentence above the footer until the next one; empty for none.
  void setNotice(std::string notice) { notice_ = std::move(notice); }
  void draw(Instant now);
  void suspend() { screen_.suspend(); }

 private:
  const std::string footer_;
  const Palette palette_;
  std::unique_ptr<nlohmann::json> state_;
  std::string notice_;
  FullScreen screen_;
};

}  // namespace vimbrel
