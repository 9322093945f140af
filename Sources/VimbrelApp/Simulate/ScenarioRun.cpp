// SPDX-License-Identifier: Apache-2.0
#include "Simulate/ScenarioRun.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>

#include "AgentMonitoring/Hooks/DirectHookReceiver.h"
#include "Domain/HookEvent.h"
#include "Platform/Simulated/SimulatedMachine.h"
#include "Support/VirtualTime.h"
#include "System/Application.h"

namespace vimbrel {
namespace {

using Kind = ScenarioEvent::Kind;
using std::chrono::nanoseconds;

nanoseconds asNanoseconds(Seconds duration) { return std::chrono::round<nanoseconds>(duration); }

/// Tells of notifications instead of showing them.
class Notices final : public NotificationCenter {
 public:
  explicit Notices(std::function<void(std::string)> tell) : tell_(std::move(tell)) {}
  bool isAvailable() override { return true; }
  void requestAuthorization(std::function<void(const std::expected<bool, std::string>&)> answer) override {
    answer(true);
  }
  void post(const Notification& notification, Completion completion) override {
    tell_(notification.title + " — " + notification.body);
    completion({});
  }

 private:
  const std::function<void(std::string)> tell_;
};

class Run {
 public:
  Run(const Scenario& scenario, const std::string& directory,
      const std::function<void(const ScenarioEvent&)>& happened, const std::function<bool()>& isInterrupted)
      : scenario_(scenario),
        directories_{directory, directory, directory},
        happened_(happened),
        isInterrupted_(isInterrupted),
        time_(scenario.start),
        machine_(time_.mainQueue(), scenario.world) {}

  std::expected<std::vector<ProtectionEpisode>, std::string> toEnd() {
    start();
    if (auto changed = change(scenario_.settings); !changed) return std::unexpected(changed.error());
    for (const auto& step : scenario_.steps) {
      advanceTo(step.at);
      if (isInterrupted()) break;
      if (auto done = carryOut(step); !done) return std::unexpected(done.error());
      time_.runReady();
      tellOfLid();
    }
    advanceTo(scenario_.length);
    if (isInterrupted()) return std::unexpected("it was interrupted");
    const auto episodes = application_ ? application_->history().episodes() : ended_;
    stop();
    return episodes;
  }

 private:
  void tell(Kind kind, std::string text) { happened_({time_.now(), kind, std::move(text)}); }

  bool isInterrupted() const { return isInterrupted_ && isInterrupted_(); }

  void advanceTo(Seconds at) {
    const auto target = asNanoseconds(at);
    // A second at a time: the lid's cover changes without the state being announced.
    while (time_.monotonic() < target && !isInterrupted()) {
      time_.advance(std::min<nanoseconds>(std::chrono::seconds{1}, target - time_.monotonic()));
      tellOfLid();
    }
  }

  void start() {
    if (application_) return;
    receiver_ = std::make_shared<DirectHookReceiver>(time_, time_);
    auto platform = machine_.services();
    platform.notificationCenter =
        std::make_shared<Notices>([this](std::string text) { tell(Kind::notice, std::move(text)); });
    application_ = std::make_unique<Application>(std::move(platform), time_, time_, directories_,
                                                 ApplicationOptions{.hookReceiver = receiver_});
    changed_ = application_->coordinator().stateChanged().subscribe([this] { tellOfDecision(); });
    last_.clear();
    application_->start();
    time_.runReady();
  }

  void stop() {
    if (!application_) return;
    application_->stop();
    time_.runReady();
    ended_ = application_->history().episodes();
    end();
  }

  /// Without a word, as when the process is killed.
  void end() {
    changed_.reset();
    application_.reset();
    receiver_.reset();
    time_.runReady();
  }

  /// While the application runs; the scenario's reader sees to that.
  std::expected<void, std::string> change(const std::vector<ScenarioSetting>& settings) {
    for (const auto& setting : settings) {
      const auto written = application_->settings().setValue(setting.key, setting.value);
      if (!written) return std::unexpected(written.error().text);
    }
    time_.runReady();
    return {};
  }

  std::expected<void, std::string> carryOut(const ScenarioStep& step) {
    if (const auto* say = std::get_if<ScenarioStep::Say>(&step.action)) tell(Kind::story, say->text);
    if (const auto* hook = std::get_if<ScenarioStep::Hook>(&step.action)) send(*hook, step.isRepeat);
    if (const auto* world = std::get_if<ScenarioStep::World>(&step.action)) {
      if (!step.isRepeat) tell(Kind::cause, world->text);
      machine_.setWorld(world->world);
    }
    if (const auto* changed = std::get_if<ScenarioStep::Settings>(&step.action)) {
      for (const auto& setting : changed->settings) tell(Kind::cause, setting.key + " = " + setting.text);
      return change(changed->settings);
    }
    if (const auto* life = std::get_if<ScenarioStep::Life>(&step.action)) live(*life);
    return {};
  }

  void send(const ScenarioStep::Hook& hook, bool isRepeat) {
    if (!isRepeat)
      tell(Kind::cause, std::string(rawValue(hook.agent)) + " " + std::string(rawValue(hook.state)));
    if (!receiver_) return;  // As the relay does when nobody listens.
    HookEvent event;
    event.agent = hook.agent;
    event.state = hook.state;
    event.sessionId = hook.session;
    event.timestamp = time_.now();
    receiver_->send(event.toJSONData());
  }

  void live(ScenarioStep::Life life) {
    using Life = ScenarioStep::Life;
    static constexpr std::array texts{"Vimbrel is started", "Vimbrel is stopped", "Vimbrel crashes"};
    tell(Kind::cause, texts.at(static_cast<std::size_t>(life)));
    if (life == Life::start) start();
    if (life == Life::stop) stop();
    if (life == Life::crash) {
      if (application_) ended_ = application_->history().episodes();
      end();
    }
  }

  void tellOfDecision() {
    const auto& decision = application_->coordinator().currentDecision().get();
    auto text = decision.statusDescription();
    const bool isHeld = machine_.isHeld(AssertionType::preventUserIdleSystemSleep);
    const bool isDisplayHeld = machine_.isHeld(AssertionType::preventUserIdleDisplaySleep);
    if (decision.isHolding()) {
      text += isHeld ? (isDisplayHeld ? "; held: system and display" : "; held: system") : "; NOT HELD";
    }
    auto comparable = text;
    // The release delay counts down in the reason.
    if (text.contains("Release debounce"))
      std::erase_if(comparable, [](char c) { return c >= '0' && c <= '9'; });
    if (comparable == last_) return;
    last_ = std::move(comparable);
    tell(Kind::decision, std::move(text));
  }

  void tellOfLid() {
    const bool isClosed = machine_.world().lidClosed.value_or(false);
    const bool isCovered = application_ && application_->deepHold().report().cover == LidCover::covered;
    std::string_view text;
    if (isClosed) text = isCovered ? "lid closed: stays awake" : "lid closed: the machine sleeps";
    if (text == lid_) return;
    if (text.empty()) text = "lid open";
    tell(Kind::lid, std::string(text));
    lid_ = isClosed ? text : std::string_view{};
  }

  const Scenario& scenario_;
  const ApplicationDirectories directories_;
  const std::function<void(const ScenarioEvent&)>& happened_;
  const std::function<bool()>& isInterrupted_;
  VirtualTime time_;
  SimulatedMachine machine_;
  std::shared_ptr<DirectHookReceiver> receiver_;
  std::unique_ptr<Application> application_;
  std::vector<ProtectionEpisode> ended_;
  Token changed_;
  std::string last_;
  std::string_view lid_;
};

}  // namespace

std::expected<std::vector<ProtectionEpisode>, std::string> runScenario(
    const Scenario& scenario, const std::string& directory,
    const std::function<void(const ScenarioEvent&)>& happened, const std::function<bool()>& isInterrupted) {
  return Run(scenario, directory, happened, isInterrupted).toEnd();
}

std::string_view rawValue(ScenarioEvent::Kind kind) {
  static constexpr std::array names{"story", "cause", "decision", "lid", "notice"};
  return names.at(static_cast<std::size_t>(kind));
}

std::string lineOf(const ScenarioEvent& event) {
  static constexpr std::array marks{"* ", "> ", "  ", "  ", "  notice: "};
  return formatIso8601(event.at).substr(11, 8) + "  " + marks.at(static_cast<std::size_t>(event.kind)) +
         event.text;
}

}  // namespace vimbrel
