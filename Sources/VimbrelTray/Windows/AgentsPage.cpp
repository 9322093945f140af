// SPDX-License-Identifier: Apache-2.0
#include "Windows/AgentsPage.h"

#include <QBoxLayout>
#include <QClipboard>
#include <QFontDatabase>
#include <QGuiApplication>
#include <QLabel>
#include <QListWidget>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSplitter>
#include <QTimer>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "Presentation/TimeText.h"
#include "Support/Clock.h"
#include "Views/AvatarPicture.h"
#include "Views/Theme.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

QString text(const std::string& value) { return QString::fromStdString(value); }

void paintText(QLabel& label, const QColor& colour) {
  auto palette = label.palette();
  palette.setColor(QPalette::WindowText, colour);
  label.setPalette(palette);
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
    : Page(model), introduction_(new QWidget(this)), list_(new QListWidget) {
  auto* layout = new QVBoxLayout(this);
  auto* introduction = new QHBoxLayout(introduction_);
  introduction->setContentsMargins(4, 4, 4, 8);
  auto* welcome = new QLabel(tr("Welcome. Vimbrel keeps this machine awake while your coding agents work, "
                                "and lets it sleep when they "
                                "stop. Agents tell it through a hook: choose one, paste what is shown into "
                                "its configuration, and use "
                                "it once. Vimbrel never writes into an agent's files itself."),
                             introduction_);
  welcome->setWordWrap(true);
  auto* done = new QPushButton(tr("Done"), introduction_);
  done->setAccessibleName(tr("Finish the introduction"));
  introduction->addWidget(welcome, 1);
  introduction->addWidget(done, 0, Qt::AlignTop);
  connect(done, &QPushButton::clicked, this, [this] { model_.setSetting("hasCompletedOnboarding", true); });
  layout->addWidget(introduction_);

  auto* split = new QSplitter(this);
  list_->setAccessibleName(tr("Agents"));
  list_->setIconSize(QSize(24, 24));
  split->addWidget(list_);
  split->addWidget(makeDetails());
  split->setStretchFactor(0, 2);
  split->setStretchFactor(1, 5);
  split->setChildrenCollapsible(false);
  layout->addWidget(split, 1);
  connect(list_, &QListWidget::currentRowChanged, this, &AgentsPage::select);
}

QWidget* AgentsPage::makeDetails() {
  auto* details = new QWidget;
  auto* column = new QVBoxLayout(details);
  name_ = new QLabel(details);
  auto large = font();
  large.setPointSizeF(large.pointSizeF() * 1.3);
  large.setBold(true);
  name_->setFont(large);
  status_ = new QLabel(details);
  waiting_ = new QLabel(details);
  instructions_ = new QLabel(details);
  place_ = new QLabel(details);
  for (auto* label : {name_, status_, waiting_, instructions_, place_}) {
    label->setTextFormat(Qt::PlainText);
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
  placeRow->addWidget(copy_);
  column->addWidget(name_);
  column->addWidget(status_);
  column->addWidget(instructions_);
  column->addLayout(placeRow);
  column->addWidget(snippet_, 1);
  column->addWidget(waiting_);
  column->addStretch(0);
  return details;
}

void AgentsPage::refresh() {
  const auto& state = model_.situation().state;
  introduction_->setVisible(state && !state->hasCompletedOnboarding);
  if (rows_.empty()) status_->setText(tr("Looking for agents…"));
  // What the user's shell would find, as far as the session's environment tells.
  json environment = json::object();
  for (const char* name : {"HOME", "PATH", "XDG_CONFIG_HOME", "XDG_DATA_HOME"}) {
    if (qEnvironmentVariableIsSet(name)) environment[name] = qEnvironmentVariable(name).toStdString();
  }
  ask("agents", {{"environment", environment}},
      [this](const json& result) { showRows(makeAgentRows(result)); });
}

void AgentsPage::showRows(const std::vector<AgentRow>& rows) {
  if (rows == rows_) return;
  const bool isFirst = rows_.empty();
  rows_ = rows;
  {
    const QSignalBlocker quiet(list_);
    list_->clear();
    for (const auto& row : rows) {
      auto* item = new QListWidgetItem(QIcon(agentTile(row.agent, 24, devicePixelRatioF())),
                                       text(row.name) + "\n" + text(row.status), list_);
      item->setForeground(row.isInstalled || row.isConnected ? Theme::current().text : Theme::current().dim);
    }
    const auto found = std::ranges::find(rows, chosen_, &AgentRow::agent);
    if (found != rows.end()) list_->setCurrentRow(static_cast<int>(found - rows.begin()));
  }
  if (isFirst && !rows.empty()) {
    list_->setCurrentRow(0);
  } else if (const int current = list_->currentRow(); current >= 0) {
    const auto& row = rows_[static_cast<std::size_t>(current)];
    status_->setText(statusLine(row));
    paintText(*status_, Theme::current().of(row.tone));
  }
}

void AgentsPage::select(int index) {
  if (index < 0 || index >= static_cast<int>(rows_.size())) return;
  const auto& row = rows_[static_cast<std::size_t>(index)];
  chosen_ = row.agent;
  name_->setText(text(row.name));
  status_->setText(statusLine(row));
  paintText(*status_, Theme::current().of(row.tone));
  isWatching_ = false;
  ask("agents.setup", {{"agent", rawValue(row.agent)}}, [this, agent = row.agent](const json& result) {
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
  for (auto* each : std::initializer_list<QWidget*>{place_, snippet_, copy_, waiting_})
    each->setVisible(hasSnippet);
  isWatching_ = hasSnippet && model_.situation().state;
  if (isWatching_) watch_.begin(chosen_, *model_.situation().state);
  showWaiting();
}

void AgentsPage::takeSituation() {
  const auto& state = model_.situation().state;
  introduction_->setVisible(state && !state->hasCompletedOnboarding);
  if (!state || !isWatching_ || watch_.isReceived()) return;
  if (watch_.update(*state)) {
    showWaiting();
    refresh();
  }
}

void AgentsPage::showWaiting() {
  const bool isReceived = watch_.isReceived();
  const auto name = text(std::string(displayName(chosen_)));
  waiting_->setText(isReceived ? tr("✓ The first event of %1 was received. It is connected.").arg(name)
                               : tr("Waiting for the first event of %1…").arg(name));
  paintText(*waiting_, Theme::current().of(isReceived ? Tone::good : Tone::dim));
}

}  // namespace vimbrel::desktop
