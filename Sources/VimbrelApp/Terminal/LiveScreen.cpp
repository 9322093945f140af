// SPDX-License-Identifier: Apache-2.0
#include "Terminal/LiveScreen.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Say.h"
#include "Terminal/StatusView.h"

namespace vimbrel {

LiveScreen::LiveScreen(std::string quitKey)
    : footer_(std::move(quitKey) + "  " + say("p pause 45 min  r resume")),
      palette_(Palette::forDescriptor(STDOUT_FILENO)),
      state_(std::make_unique<nlohmann::json>(nlohmann::json::object())) {}

LiveScreen::~LiveScreen() = default;

void LiveScreen::setState(const nlohmann::json& state) { *state_ = state; }

void LiveScreen::draw(Instant now) {
  screen_.show(statusScreen(*state_, terminalSize(STDOUT_FILENO), palette_, now, footer_, notice_));
}

}  // namespace vimbrel
