// SPDX-License-Identifier: Apache-2.0
#include "DesktopProgram.h"

#include <QApplication>
#include <nlohmann/json.hpp>

#include "Presentation/UsageSummaries.h"
#include "Support/Clock.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {

using nlohmann::json;
using namespace std::chrono_literals;

namespace {

/// How long an open popover shows the same usage.
constexpr int usageSeconds = 30;

Instant now() { return SystemClock().now(); }

}  // namespace

DesktopProgram::DesktopProgram(DesktopOptions options, std::string socketPath)
    : options_(std::move(options)), model_(std::move(socketPath)) {
  applyPreferences();
  connect(&preferences_, &DesktopPreferences::changed, this, &DesktopProgram::applyPreferences);
  connect(&trayHost_, &TrayHost::available, this, [this] { item_.show(); });
  connect(&model_, &DesktopModel::situationChanged, this, &DesktopProgram::showSituation);
  connect(&model_, &DesktopModel::failed, this, [this](const QString& problem) {
    if (window_ && window_->isActiveWindow()) return window_->showProblem(problem);
    if (!popover_.isVisible()) showPopover();
    popover_.showProblem(problem);
  });
  wireSurfaces();
}

void DesktopProgram::wireSurfaces() {
  connect(&item_, &MenuBarItem::activated, this, [this] {
    if (!popover_.isVisible()) refreshPopover();
    popover_.toggleAt(item_.geometry());
  });
  connect(&item_, &MenuBarItem::chosen, this, &DesktopProgram::choose);
  connect(&notch_, &NotchWindow::clicked, this, [this] {
    refreshPopover();
    popover_.openAt(notch_.geometry());
  });
  connect(&popover_, &PopoverWindow::chosen, this, &DesktopProgram::choose);
  connect(&popover_, &PopoverWindow::settingRequested, this,
          [this](const QString& key, bool value) { model_.setSetting(key, value); });
  connect(&popover_, &PopoverWindow::opened, this, [this] {
    ticks_ = 0;
    tick_.start(1s);
    notch_.setSuppressed(true);
    // After it is on the screen: nothing that takes time stands before that.
    QTimer::singleShot(0, this, [this] {
      refreshPopover();
      fetchUsage();
    });
  });
  connect(&popover_, &PopoverWindow::closed, this, [this] {
    tick_.stop();
    notch_.setSuppressed(false);
  });
  connect(&tick_, &QTimer::timeout, this, [this] {
    refreshPopover();
    if (++ticks_ % usageSeconds == 0) fetchUsage();
  });
}

void DesktopProgram::start() {
  showSituation();
  preferences_.start();
  trayHost_.start();
  model_.start();
  if (!options_.open.isEmpty()) {
    // The first state is here in a moment, and what opens should have it.
    QTimer::singleShot(300ms, this, [this] { open(options_.open); });
  }
}

void DesktopProgram::open(const QString& what) {
  if (what == "introduction") return openIntroduction();
  if (const auto page = MainWindow::pageFromName(what)) return openPage(*page);
  showPopover();
}

void DesktopProgram::applyPreferences() {
  using Colours = DesktopOptions::Colours;
  auto dark = preferences_.wantsDark();
  if (options_.colours != Colours::asDesktop) dark = options_.colours == Colours::dark;
  // Where the desktop has no wish, its own palette tells which one fits.
  static const bool isDarkByItself = QApplication::palette().color(QPalette::Window).lightness() < 128;
  QApplication::setPalette((dark.value_or(isDarkByItself) ? Theme::dark() : Theme::light()).palette());
  AvatarAnimation::setMotionReduced(options_.reduceMotion || preferences_.wantsLittleMotion());
}

void DesktopProgram::showSituation() {
  const auto& situation = model_.situation();
  item_.setContent(makeTrayItem(situation, now()));
  const auto& state = situation.state;
  if (state) {
    const auto display = displayStateOf(*state, now());
    for (StatusSurface* surface : std::initializer_list<StatusSurface*>{&item_, &popover_, &notch_}) {
      surface->render(display);
    }
  }
  notch_.setPill(state ? std::optional(makeNotchPill(*state, now())) : std::nullopt,
                 state ? notchModeOf(*state) : NotchMode::onChange);
  if (popover_.isVisible()) refreshPopover();
  if (window_) window_->takeSituation();
  if (state && !state->hasCompletedOnboarding && !wasOnboardingOffered_) {
    wasOnboardingOffered_ = true;
    openPage(MainWindow::Page::agents);
  }
}

void DesktopProgram::showPopover() {
  refreshPopover();
  popover_.openAt(item_.geometry());
}

void DesktopProgram::refreshPopover() {
  popover_.setContent(makePopoverContent(model_.situation(), now()), now());
}

void DesktopProgram::fetchUsage() {
  if (!model_.situation().state) return;
  const json wanted{{"by", "daily"}, {"since", formatIso8601(chartBegin(now()))}};
  model_.link().call("usage.report", wanted, this, [this](const Answer& report) {
    // Without a record of usage there is nothing to show, and the usage page says why.
    popover_.setChart(makeUsageChart(report ? *report : json(), now()));
  });
}

void DesktopProgram::choose(MenuAction action) {
  switch (action) {
    case MenuAction::quit:
      return QApplication::quit();
    case MenuAction::open:
      return showPopover();
    case MenuAction::history:
      return openPage(MainWindow::Page::history);
    case MenuAction::agents:
      popover_.close();
      return openPage(MainWindow::Page::agents);
    case MenuAction::settings:
      return openPage(MainWindow::Page::settings);
    case MenuAction::diagnostics:
      return openPage(MainWindow::Page::diagnostics);
    case MenuAction::introduction:
      return openIntroduction();
    default:
      model_.perform(action);
  }
}

MainWindow& DesktopProgram::window() {
  if (!window_) window_ = std::make_unique<MainWindow>(model_);
  return *window_;
}

void DesktopProgram::openPage(MainWindow::Page page) { window().openPage(page); }

void DesktopProgram::openIntroduction() { window().openIntroduction(); }

}  // namespace vimbrel::desktop
