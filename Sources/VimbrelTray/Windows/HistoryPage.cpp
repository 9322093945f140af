// SPDX-License-Identifier: Apache-2.0
#include "Windows/HistoryPage.h"

#include <QBoxLayout>
#include <QHeaderView>
#include <QScrollArea>
#include <QTableWidget>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "Support/Clock.h"
#include "Views/Theme.h"
#include "Views/ToneLabel.h"
#include "Windows/Tables.h"
#include "Windows/TimelineView.h"

namespace vimbrel::desktop {

HistoryPage::HistoryPage(DesktopModel& model)
    : Page(model),
      total_(new ToneLabel(Tone::plain, this)),
      timeline_(new TimelineView),
      table_(new QTableWidget(this)) {
  auto* layout = new QVBoxLayout(this);
  total_->setWordWrap(true);
  total_->setScale(1.15, true);
  layout->setSpacing(10);
  layout->addWidget(total_);
  timelineArea_ = new QScrollArea(this);
  auto* scroll = timelineArea_;
  scroll->setWidget(timeline_);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  layout->addWidget(scroll);
  prepareTable(*table_, {tr("Began"), tr("Lasted"), tr("Because of"), tr("Ended"), tr("Battery")});
  table_->setAccessibleName(tr("Every time of protection"));
  layout->addWidget(table_, 1);
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
    timelineArea_->setVisible(!timeline.days.empty());
    // As high as its days, but never more than its share of the page; the table has the rest.
    timelineArea_->setFixedHeight(std::min(timeline_->sizeHint().height(), height() / 2));
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
