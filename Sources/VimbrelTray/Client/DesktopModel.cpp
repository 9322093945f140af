// SPDX-License-Identifier: Apache-2.0
#include "Client/DesktopModel.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "Presentation/TimeText.h"
#include "Support/Clock.h"

namespace vimbrel::desktop {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

/// A start takes a fraction of a second; a machine that is busy at login takes longer.
constexpr auto startPatience = 15s;

}  // namespace

DesktopModel::DesktopModel(std::string socketPath, QObject* parent)
    : QObject(parent), link_(std::move(socketPath)) {
  startPatience_.setSingleShot(true);
  connect(&link_, &ControlLink::stateReceived, this, &DesktopModel::takeState);
  connect(&link_, &ControlLink::disconnected, this, &DesktopModel::loseState);
  connect(&starter_, &ApplicationStarter::failed, this, [this](const QString& reason) {
    startPatience_.stop();
    setLink(LinkStatus::absent);
    Q_EMIT failed(reason);
  });
  connect(&startPatience_, &QTimer::timeout, this, [this] {
    if (situation_.link != LinkStatus::starting) return;
    setLink(LinkStatus::absent);
    Q_EMIT failed(tr("Vimbrel was started and does not answer. \"vimbrel run\" in a terminal says why."));
  });
}

void DesktopModel::start() { link_.start(); }

void DesktopModel::takeState(const json& state) {
  auto read = publishedStateFromJson(state);
  if (!read) {
    // Once: an application of another time sends such states all day, and each telling opens the popover.
    if (!std::exchange(toldOfUnreadable_, true)) Q_EMIT failed(QString::fromStdString(read.error()));
    return;
  }
  toldOfUnreadable_ = false;
  startPatience_.stop();
  Situation next{.link = LinkStatus::connected, .state = std::move(*read)};
  if (next == situation_) return;
  situation_ = std::move(next);
  Q_EMIT situationChanged();
}

void DesktopModel::loseState() {
  if (situation_.link == LinkStatus::starting) return;
  setLink(LinkStatus::absent);
}

void DesktopModel::setLink(LinkStatus status) {
  Situation next{.link = status};
  if (next == situation_) return;
  situation_ = std::move(next);
  Q_EMIT situationChanged();
}

void DesktopModel::ask(const std::string& method, const json& params) {
  // The change itself comes back with the stream.
  link_.call(method, params, this, [this](const Answer& answer) {
    if (!answer) Q_EMIT failed(QString::fromStdString(answer.error()));
  });
}

void DesktopModel::setSetting(const QString& key, const json& value) {
  ask("settings.set", {{"key", key.toStdString()}, {"value", value}});
}

void DesktopModel::startApplication() {
  setLink(LinkStatus::starting);
  startPatience_.start(startPatience);
  starter_.start();
}

void DesktopModel::perform(MenuAction action) {
  switch (action) {
    case MenuAction::pauseQuarterHour:
      return ask("pause", {{"seconds", 900}});
    case MenuAction::pauseHour:
      return ask("pause", {{"seconds", 3600}});
    case MenuAction::pauseUntilTomorrow:
      return ask("pause", {{"until", formatIso8601(nextMorning(SystemClock().now()))}});
    case MenuAction::resume:
      return ask("resume", json::object());
    case MenuAction::toggleManualHold:
      if (situation_.state) ask("hold", {{"on", !situation_.state->manualHoldEnabled}});
      return;
    case MenuAction::toggleMaster:
      if (situation_.state) setSetting("masterEnabled", !situation_.state->masterEnabled);
      return;
    case MenuAction::startApplication:
      return startApplication();
    default:
      return;
  }
}

}  // namespace vimbrel::desktop
