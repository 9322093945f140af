// SPDX-License-Identifier: Apache-2.0
#include "Run/SpokenNotifications.h"

#include <gtest/gtest.h>

#include "MadeCatalogue.h"
#include "Say.h"

using namespace vimbrel;
using namespace std::string_literals;

namespace {

class Desktop final : public NotificationCenter {
 public:
  bool isAvailable() override { return true; }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) override {
    answer(true);
  }
  void post(const Notification& notification, Completion completion) override {
    shown = notification;
    completion({});
  }
  Notification shown;
};

TEST(SpokenNotifications, noticesAreToldInTheUsersLanguageAndActionsComeBack) {
  const auto desktop = std::make_shared<Desktop>();
  SpokenNotifications spoken(desktop);
  const Notification notice{.identifier = "vimbrel.started",
                            .title = "Vimbrel is protecting this Mac",
                            .body = "2 coding agent sessions working.",
                            .urgency = NotificationUrgency::low,
                            .actions = {{.key = "pause-1h", .label = "Pause 1 h"}}};
  speak(madeCatalogue({{"sentence\x04Vimbrel is protecting this Mac", "Vimbrel hält diesen Mac wach"},
                       {"sentence\x04%1 coding agent session working.\0%1 coding agent sessions working."s,
                        "%1 Sitzung arbeitet.\0%1 Sitzungen arbeiten."s},
                       {"sentence\x04Pause 1 h", "1 h Pause"}}));
  bool isShown = false;
  spoken.post(notice, [&](const std::expected<void, std::string>& posted) { isShown = posted.has_value(); });
  speak(nullptr);
  EXPECT_TRUE(isShown);
  auto expected = notice;
  expected.title = "Vimbrel hält diesen Mac wach";
  expected.body = "2 Sitzungen arbeiten.";
  expected.actions[0].label = "1 h Pause";
  EXPECT_EQ(desktop->shown, expected);

  std::string chosen;
  spoken.onAction = [&](const std::string& identifier, const std::string& action) {
    chosen = identifier + " " + action;
  };
  desktop->onAction("vimbrel.started", "pause-1h");
  EXPECT_EQ(chosen, "vimbrel.started pause-1h");

  spoken.post(notice, [](const std::expected<void, std::string>&) {});
  EXPECT_EQ(desktop->shown, notice) << "English, when nothing else is spoken";
}

}  // namespace
