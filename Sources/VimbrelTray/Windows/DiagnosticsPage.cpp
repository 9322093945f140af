// SPDX-License-Identifier: Apache-2.0
#include "Windows/DiagnosticsPage.h"

#include <QBoxLayout>
#include <QClipboard>
#include <QFontDatabase>
#include <QGridLayout>
#include <QGuiApplication>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSplitter>
#include <nlohmann/json.hpp>

#include "Presentation/DoctorFindings.h"
#include "Presentation/JsonFields.h"
#include "Say.h"
#include "Views/Card.h"
#include "Views/ToneLabel.h"
#include "Windows/SaveFile.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

QString text(const std::string& value) { return QString::fromStdString(value); }

ToneLabel* label(const QString& content, Tone tone, QWidget* parent) {
  auto* made = new ToneLabel(tone, parent, content);
  made->setWordWrap(true);
  made->setTextInteractionFlags(Qt::TextSelectableByMouse);
  return made;
}

QString capitalised(const QString& subject) { return subject.left(1).toUpper() + subject.mid(1); }

}  // namespace

DiagnosticsPage::DiagnosticsPage(DesktopModel& model)
    : Page(model),
      state_(new ToneLabel(Tone::plain, this)),
      findingsPlace_(new QVBoxLayout),
      document_(new QPlainTextEdit),
      copy_(new QPushButton(tr("Copy"))),
      save_(new QPushButton(tr("Save…"))) {
  auto* layout = new QVBoxLayout(this);
  auto* head = new QHBoxLayout;
  state_->setScale(1.15, true);
  head->addWidget(state_, 1);
  auto* again = new QPushButton(tr("Examine Again"), this);
  connect(again, &QPushButton::clicked, this, &DiagnosticsPage::refresh);
  head->addWidget(again);
  layout->addLayout(head);

  auto* split = new QSplitter(Qt::Vertical, this);
  auto* scroll = new QScrollArea;
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  auto* inside = new QWidget;
  findingsPlace_->setContentsMargins(0, 0, 8, 0);
  findingsPlace_->addStretch(1);
  inside->setLayout(findingsPlace_);
  scroll->setWidget(inside);
  split->addWidget(scroll);

  auto* report = new QWidget;
  auto* column = new QVBoxLayout(report);
  column->setContentsMargins(0, 8, 0, 0);
  auto* reportHead = new QHBoxLayout;
  reportHead->addWidget(
      label(tr("The report, as it would be sent: nothing leaves this machine by itself."), Tone::dim, report),
      1);
  reportHead->addWidget(copy_);
  reportHead->addWidget(save_);
  column->addLayout(reportHead);
  document_->setReadOnly(true);
  document_->setLineWrapMode(QPlainTextEdit::NoWrap);
  document_->setFont(QFontDatabase::systemFont(QFontDatabase::FixedFont));
  document_->setAccessibleName(tr("Diagnostics report"));
  document_->setTabChangesFocus(true);
  column->addWidget(document_);
  split->addWidget(report);
  const int em = fontMetrics().height();
  split->setSizes({em * 20, em * 16});
  split->setChildrenCollapsible(false);
  layout->addWidget(split, 1);
  copy_->setAccessibleName(tr("Copy the report"));
  save_->setAccessibleName(tr("Save the report"));
  connect(copy_, &QPushButton::clicked, this,
          [this] { QGuiApplication::clipboard()->setText(document_->toPlainText()); });
  connect(save_, &QPushButton::clicked, this, [this] {
    saveText(*this, tr("Save Diagnostics"), "vimbrel-diagnostics.json", document_->toPlainText(),
             [this](const QString& reason) { Q_EMIT problem(reason); });
  });
}

void DiagnosticsPage::refresh() {
  state_->setText(tr("Examining…"));
  ask("doctor", json::object(), [this](const json& result) { showFindings(result); });
  ask("diagnostics", json::object(),
      [this](const json& result) { document_->setPlainText(text(textOf(result, "document"))); });
}

void DiagnosticsPage::showFindings(const json& result) {
  const auto rows = makeFindingRows(result);
  int wanting = 0;
  delete findings_;
  findings_ = new Card(this);
  auto* grid = new QGridLayout(findings_);
  grid->setContentsMargins(14, 10, 14, 10);
  grid->setHorizontalSpacing(18);
  grid->setVerticalSpacing(9);
  grid->setColumnStretch(2, 1);
  int line = 0;
  for (const auto& row : rows) {
    if (row.tone != Tone::good) ++wanting;
    if (line > 0) grid->addWidget(new Divider(findings_), line++, 0, 1, 3);
    auto* verdict = label("●  " + text(row.verdict), row.tone, findings_);
    verdict->setAccessibleName(text(row.verdict));
    verdict->setWordWrap(false);
    grid->addWidget(verdict, line, 0, Qt::AlignTop);
    grid->addWidget(label(capitalised(text(row.subject)), Tone::plain, findings_), line, 1, Qt::AlignTop);
    auto* texts = new QVBoxLayout;
    texts->setSpacing(2);
    texts->addWidget(label(text(row.explanation), row.remedy.empty() ? Tone::dim : Tone::plain, findings_));
    if (!row.remedy.empty()) texts->addWidget(label("→ " + text(row.remedy), Tone::plain, findings_));
    grid->addLayout(texts, line, 2);
    ++line;
  }
  grid->setColumnMinimumWidth(1, fontMetrics().averageCharWidth() * 18);
  findingsPlace_->insertWidget(0, findings_);
  state_->setTone(wanting == 0 ? Tone::good : Tone::plain);
  if (wanting == 0) {
    state_->setText(tr("Everything works."));
  } else {
    state_->setText(text(sayCount(wanting, "One thing wants attention.", "%1 things want attention.")));
  }
}

}  // namespace vimbrel::desktop
