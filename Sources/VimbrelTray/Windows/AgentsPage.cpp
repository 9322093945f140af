// SPDX-License-Identifier: Apache-2.0
#include "Windows/AgentsPage.h"

#include <QBoxLayout>
#include <QClipboard>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSplitter>
#include <QTimer>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "AgentMonitoring/Adapters/AgentAdapter.h"
#include "Presentation/TimeText.h"
#include "Say.h"
#include "Support/Clock.h"
#include "Views/AvatarPicture.h"
#include "Views/AvatarView.h"
#include "Views/Theme.h"
#include "Views/ToneLabel.h"
#include "Windows/IntroductionView.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

constexpr int listEmblem = 32;
constexpr int headingEmblem = 48;

QString text(const std::string& value) { return QString::fromStdString(value); }

/// What the user's shell would find, as far as the session's environment tells.
json ownEnvironment() {
  json environment = json::object();
  for (const char* name : AgentEnvironment::variableNames()) {
    if (qEnvironmentVariableIsSet(name)) environment[name] = qEnvironmentVariable(name).toStdString();
  }
  return environment;
}

QString statusLine(const AgentRow& row) {
  QStringList parts{text(row.status)};
  if (!row.version.empty()) parts << text(row.version);
  if (row.lastEventAt) {
    parts << AgentsPage::tr("last event %1").arg(text(agoText(*row.lastEventAt, SystemClock().now())));
  }
  return parts.join(" · ");
}

}  // namespace

AgentsPage::AgentsPage(DesktopModel& model)
    : Page(model), introduction_(new IntroductionView(this)), list_(new QListWidget) {
  auto* layout = new QVBoxLayout(this);
  layout->setSpacing(12);
  layout->addWidget(introduction_);
  connect(introduction_, &IntroductionView::finished, this, &AgentsPage::finishIntroduction);

  auto* split = new QSplitter(this);
  list_->setAccessibleName(tr("Agents"));
  list_->setIconSize(QSize(listEmblem, listEmblem));
  list_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  list_->setMinimumWidth(fontMetrics().averageCharWidth() * 30);
  split->addWidget(list_);
  split->addWidget(makeDetails());
  split->setStretchFactor(0, 2);
  split->setStretchFactor(1, 5);
  split->setChildrenCollapsible(false);
  layout->addWidget(split, 1);
  connect(list_, &QListWidget::currentRowChanged, this, &AgentsPage::select);
}

QWidget* AgentsPage::makeHeading() {
  auto* heading = new QWidget;
  auto* row = new QHBoxLayout(heading);
  row->setContentsMargins(0, 0, 0, 4);
  row->setSpacing(12);
  emblem_ = new QLabel(heading);
  name_ = new ToneLabel(Tone::plain, heading);
  name_->setScale(1.4, true);
  status_ = new ToneLabel(Tone::dim, heading);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(2);
  texts->addWidget(name_);
  texts->addWidget(status_);
  row->addWidget(emblem_);
  row->addLayout(texts, 1);
  return heading;
}

QWidget* AgentsPage::makeDetails() {
  auto* details = new QWidget;
  auto* column = new QVBoxLayout(details);
  column->setContentsMargins(4, 0, 0, 0);
  column->setSpacing(8);
  auto* heading = makeHeading();
  waiting_ = new ToneLabel(Tone::dim, details);
  instructions_ = new ToneLabel(Tone::plain, details);
  place_ = new ToneLabel(Tone::dim, details);
  for (auto* label : {name_, status_, waiting_, instructions_, place_}) {
    label->setWordWrap(true);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
  }
  snippet_ = new QPlainTextEdit(details);
  snippet_->setReadOnly(true);
  snippet_->setLineWrapMode(QPlainTextEdit::NoWrap);
  snippet_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  snippet_->setAccessibleName(tr("What to paste"));
  snippet_->setTabChangesFocus(true);
  copy_ = new QPushButton(tr("Copy"), details);
  copy_->setAccessibleName(tr("Copy what to paste"));
  connect(copy_, &QPushButton::clicked, this, [this] {
    QGuiApplication::clipboard()->setText(snippet_->toPlainText());
    copy_->setText(tr("Copied"));
    QTimer::singleShot(2000, copy_, [this] { copy_->setText(tr("Copy")); });
  });
  auto* placeRow = new QHBoxLayout;
  placeRow->addWidget(place_, 1);
  placeRow->addWidget(copy_, 0, Qt::AlignBottom);
  waitingRow_ = new QWidget(details);
  auto* waiting = new QHBoxLayout(waitingRow_);
  waiting->setContentsMargins(0, 4, 0, 0);
  waitingAvatar_ = new AvatarView(32, waitingRow_);
  waiting->addWidget(waitingAvatar_);
  waiting->addWidget(waiting_, 1);
  column->addWidget(heading);
  column->addWidget(instructions_);
  column->addLayout(placeRow);
  column->addWidget(snippet_, 1);
  column->addWidget(waitingRow_);
  column->addStretch(0);
  return details;
}

void AgentsPage::openIntroduction() {
  isIntroductionAskedFor_ = true;
  showIntroduction();
}

void AgentsPage::finishIntroduction() {
  isIntroductionAskedFor_ = false;
  model_.setSetting("hasCompletedOnboarding", true);
  showIntroduction();
}

void AgentsPage::showIntroduction() {
  const auto& state = model_.situation().state;
  introduction_->setVisible(isIntroductionAskedFor_ || (state && !state->hasCompletedOnboarding));
}

void AgentsPage::refresh() {
  showIntroduction();
  if (rows_.empty()) status_->setText(tr("Looking for agents…"));
  ask("agents", {{"environment", ownEnvironment()}},
      [this](const json& result) { showRows(makeAgentRows(result)); });
}

void AgentsPage::restyle() {
  showList();
  if (const int current = list_->currentRow(); current >= 0) {
    emblem_->setPixmap(
        agentTile(rows_[static_cast<std::size_t>(current)].agent, headingEmblem, devicePixelRatioF()));
  }
}

void AgentsPage::showRows(const std::vector<AgentRow>& rows) {
  if (rows == rows_) return;
  const bool isFirst = rows_.empty();
  rows_ = rows;
  showList();
  if (isFirst && !rows.empty()) {
    list_->setCurrentRow(0);
  } else if (const int current = list_->currentRow(); current >= 0) {
    showStatus(rows_[static_cast<std::size_t>(current)]);
  }
}

void AgentsPage::showList() {
  const QSignalBlocker quiet(list_);
  list_->clear();
  for (const auto& row : rows_) {
    QIcon emblem(agentTile(row.agent, listEmblem, devicePixelRatioF()));
    // By itself a list tints the picture of what is chosen.
    emblem.addPixmap(agentTile(row.agent, listEmblem, devicePixelRatioF()), QIcon::Selected);
    auto* item = new QListWidgetItem(emblem, text(row.name) + "\n" + text(row.status), list_);
    item->setSizeHint(QSize(0, std::max(listEmblem, 2 * fontMetrics().height()) + 10));
    item->setToolTip(text(row.status));
    item->setForeground(row.isInstalled || row.isConnected ? Theme::current().text : Theme::current().dim);
  }
  const auto found = std::ranges::find(rows_, chosen_, &AgentRow::agent);
  if (found != rows_.end()) list_->setCurrentRow(static_cast<int>(found - rows_.begin()));
}

void AgentsPage::showStatus(const AgentRow& row) {
  status_->setText(statusLine(row));
  status_->setTone(row.tone);
}

void AgentsPage::select(int index) {
  if (index < 0 || index >= static_cast<int>(rows_.size())) return;
  const auto& row = rows_[static_cast<std::size_t>(index)];
  chosen_ = row.agent;
  name_->setText(text(row.name));
  emblem_->setPixmap(agentTile(row.agent, headingEmblem, devicePixelRatioF()));
  showStatus(row);
  isWatching_ = false;
  ask("agents.setup", {{"agent", rawValue(row.agent)}, {"environment", ownEnvironment()}},
      [this, agent = row.agent](const json& result) {
        if (agent == chosen_) showSetup(makeAgentInstructions(result));
      });
}

void AgentsPage::showSetup(const AgentInstructions& setup) {
  const bool hasSnippet = !setup.snippet.empty();
  instructions_->setText(text(setup.instructions));
  auto place = tr("Goes into %1").arg(text(setup.configPath));
  if (!setup.versions.empty()) place += " · " + text(setup.versions);
  place_->setText(place);
  snippet_->setPlainText(text(setup.snippet));
  for (auto* each : std::initializer_list<QWidget*>{place_, snippet_, copy_, waitingRow_})
    each->setVisible(hasSnippet);
  isWatching_ = hasSnippet && model_.situation().state;
  if (isWatching_) watch_.begin(chosen_, *model_.situation().state);
  showWaiting();
}

void AgentsPage::takeSituation() {
  const auto& state = model_.situation().state;
  showIntroduction();
  if (!state || !isWatching_ || watch_.isReceived()) return;
  if (watch_.update(*state)) {
    showWaiting();
    refresh();
  }
}

void AgentsPage::showWaiting() {
  const bool isReceived = watch_.isReceived();
  const auto name = text(retell(displayName(chosen_)));
  waiting_->setText(isReceived ? tr("✓ The first event of %1 was received. It is connected.").arg(name)
                               : tr("Waiting for the first event of %1…").arg(name));
  waiting_->setTone(isReceived ? Tone::good : Tone::dim);
  waitingAvatar_->setMood(
      {.state = isReceived ? VimbrelVisualState::completed : VimbrelVisualState::waiting});
}

}  // namespace vimbrel::desktop
