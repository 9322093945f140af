// SPDX-License-Identifier: Apache-2.0
#include "Windows/HistoryPage.h"

#include <QBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QScrollArea>
#include <QTableWidget>
#include <nlohmann/json.hpp>

#include "Support/Clock.h"
#include "Views/Theme.h"
#include "Windows/Tables.h"
#include "Windows/TimelineView.h"

namespace vimbrel::desktop {

HistoryPage::HistoryPage(DesktopModel& model)
    : Page(model), total_(new QLabel(this)), timeline_(new TimelineView), table_(new QTableWidget(this)) {
  auto* layout = new QVBoxLayout(this);
  total_->setWordWrap(true);
  layout->addWidget(total_);
  auto* scroll = new QScrollArea(this);
  scroll->setWidget(timeline_);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  layout->addWidget(scroll, 2);
  prepareTable(*table_, {tr("Began"), tr("Lasted"), tr("Because of"), tr("Ended"), tr("Battery")});
  table_->setAccessibleName(tr("Every time of protection"));
  layout->addWidget(table_, 3);
}

void HistoryPage::takeSituation() {
  // Episodes begin and end with the hold; in between there is nothing new to read.
  const bool isHolding = model_.situation().state && model_.situation().state->protectionStartedAt;
  if (isHolding != wasHolding_) refresh();
}

void HistoryPage::refresh() {
  wasHolding_ = model_.situation().state && model_.situation().state->protectionStartedAt;
  ask("history", nlohmann::json::object(), [this](const nlohmann::json& result) {
    const auto timeline = makeEpisodeTimeline(result, SystemClock().now());
    total_->setText(QString::fromStdString(timeline.total));
    timeline_->setTimeline(timeline);
    timeline_->parentWidget()->parentWidget()->setVisible(!timeline.days.empty());
    table_->setVisible(!timeline.episodes.empty());
    table_->setRowCount(0);
    for (const auto& episode : timeline.episodes) {
      const int row = table_->rowCount();
      table_->insertRow(row);
      setCells(*table_, row,
               {episode.start, episode.duration, episode.reasons, episode.ending, episode.battery});
      table_->item(row, 3)->setForeground(Theme::current().of(episode.tone));
    }
    fitColumns(*table_, 2);
  });
}

}  // namespace vimbrel::desktop
