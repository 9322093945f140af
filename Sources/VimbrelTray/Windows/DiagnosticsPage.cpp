// SPDX-License-Identifier: Apache-2.0
#include "Windows/DiagnosticsPage.h"

#include <QBoxLayout>
#include <QClipboard>
#include <QFontDatabase>
#include <QGridLayout>
#include <QGuiApplication>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QSplitter>
#include <nlohmann/json.hpp>

#include "Presentation/DoctorFindings.h"
#include "Presentation/JsonFields.h"
#include "Views/Theme.h"
#include "Windows/SaveFile.h"

namespace vimbrel::desktop {

using nlohmann::json;

namespace {

QString text(const std::string& value) { return QString::fromStdString(value); }

QLabel* label(const QString& content, const QColor& colour, QWidget* parent) {
  auto* made = new QLabel(content, parent);
  made->setTextFormat(Qt::PlainText);
  made->setWordWrap(true);
  made->setTextInteractionFlags(Qt::TextSelectableByMouse);
  auto palette = made->palette();
  palette.setColor(QPalette::WindowText, colour);
  made->setPalette(palette);
  return made;
}

}  // namespace

DiagnosticsPage::DiagnosticsPage(DesktopModel& model)
    : Page(model),
      state_(new QLabel(this)),
      findingsPlace_(new QVBoxLayout),
      document_(new QPlainTextEdit),
      copy_(new QPushButton(tr("Copy"))),
      save_(new QPushButton(tr("Save…"))) {
  auto* layout = new QVBoxLayout(this);
  auto* head = new QHBoxLayout;
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
  inside->setLayout(findingsPlace_);
  scroll->setWidget(inside);
  split->addWidget(scroll);

  auto* report = new QWidget;
  auto* column = new QVBoxLayout(report);
  column->setContentsMargins(0, 8, 0, 0);
  auto* reportHead = new QHBoxLayout;
  reportHead->addWidget(label(tr("The report, as it would be sent: nothing leaves this machine by itself."),
                              Theme::current().dim, report),
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
  split->setSizes({em * 18, em * 14});
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
  const auto& theme = Theme::current();
  const auto rows = makeFindingRows(result);
  int wanting = 0;
  delete findings_;
  findings_ = new QWidget(this);
  auto* grid = new QGridLayout(findings_);
  grid->setContentsMargins(4, 4, 12, 4);
  grid->setHorizontalSpacing(16);
  grid->setColumnStretch(2, 1);
  int line = 0;
  for (const auto& row : rows) {
    if (row.tone != Tone::good) ++wanting;
    grid->addWidget(label(text(row.verdict), theme.of(row.tone), findings_), line, 0, Qt::AlignTop);
    grid->addWidget(label(text(row.subject), theme.text, findings_), line, 1, Qt::AlignTop);
    auto explanation = text(row.explanation);
    if (!row.remedy.empty()) explanation += "\n→ " + text(row.remedy);
    grid->addWidget(label(explanation, row.remedy.empty() ? theme.dim : theme.text, findings_), line, 2);
    ++line;
  }
  grid->setColumnMinimumWidth(1, fontMetrics().averageCharWidth() * 18);
  grid->setRowStretch(line, 1);
  findingsPlace_->addWidget(findings_);
  if (wanting == 0) {
    state_->setText(tr("Everything works."));
  } else {
    state_->setText(wanting == 1 ? tr("One thing wants attention.")
                                 : tr("%1 things want attention.").arg(wanting));
  }
}

}  // namespace vimbrel::desktop
