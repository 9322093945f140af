// SPDX-License-Identifier: Apache-2.0
#include "Windows/SettingsPage.h"

#include <QBoxLayout>
#include <QCheckBox>
#include <QDesktopServices>
#include <QFileInfo>
#include <QGridLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QUrl>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "Views/Theme.h"

namespace vimbrel::desktop {

using nlohmann::json;
using Control = SettingRow::Control;

namespace {

QString text(const std::string& value) { return QString::fromStdString(value); }

void paintText(QLabel& label, const QColor& colour) {
  auto palette = label.palette();
  palette.setColor(QPalette::WindowText, colour);
  label.setPalette(palette);
}

}  // namespace

SettingsPage::SettingsPage(DesktopModel& model)
    : Page(model), formPlace_(new QVBoxLayout), location_(new QLabel(this)), warnings_(new QLabel(this)) {
  auto* layout = new QVBoxLayout(this);
  warnings_->setWordWrap(true);
  warnings_->setTextFormat(Qt::PlainText);
  layout->addWidget(warnings_);
  auto* scroll = new QScrollArea(this);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  auto* inside = new QWidget;
  inside->setLayout(formPlace_);
  scroll->setWidget(inside);
  layout->addWidget(scroll, 1);
  auto* foot = new QHBoxLayout;
  location_->setTextFormat(Qt::PlainText);
  location_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  location_->setWordWrap(true);
  foot->addWidget(location_, 1);
  auto* show = new QPushButton(tr("Open File"), this);
  auto* reset = new QPushButton(tr("Reset to Defaults…"), this);
  foot->addWidget(show);
  foot->addWidget(reset);
  layout->addLayout(foot);
  connect(show, &QPushButton::clicked, this, [this] {
    const auto path = text(list_.location);
    if (QFileInfo::exists(path)) {
      QDesktopServices::openUrl(QUrl::fromLocalFile(path));
    } else {
      Q_EMIT problem(tr("%1 is written with the first change.").arg(path));
    }
  });
  connect(reset, &QPushButton::clicked, this, &SettingsPage::resetAll);
}

void SettingsPage::refresh() {
  model_.link().call("settings.list", json::object(), this, [this](const Answer& answer) {
    if (answer) {
      show(makeSettingsList(*answer));
    } else {
      Q_EMIT problem(text(answer.error()));
    }
  });
}

void SettingsPage::show(const SettingsList& list) {
  if (list == list_ && !mustUpdate_) return;
  mustUpdate_ = false;
  const bool isSameForm =
      form_ != nullptr && std::ranges::equal(list.rows, list_.rows, {}, &SettingRow::key, &SettingRow::key);
  list_ = list;
  if (!isSameForm) build(list);
  for (std::size_t i = 0; i < list.rows.size(); ++i) update(*controls_[i], list.rows[i]);
  location_->setText(text(list.location));
  paintText(*location_, Theme::current().dim);
  QStringList lines;
  for (const auto& warning : list.warnings) lines << text(warning);
  warnings_->setText(lines.join("\n"));
  warnings_->setVisible(!lines.isEmpty());
  paintText(*warnings_, Theme::current().warning);
}

void SettingsPage::build(const SettingsList& list) {
  delete form_;
  controls_.clear();
  form_ = new QWidget(this);
  auto* grid = new QGridLayout(form_);
  grid->setContentsMargins(4, 4, 12, 4);
  grid->setColumnStretch(0, 1);
  grid->setHorizontalSpacing(24);
  std::string section;
  int line = 0;
  for (const auto& row : list.rows) {
    if (row.section != section) {
      section = row.section;
      auto* heading = new QLabel(text(section), form_);
      auto font = heading->font();
      font.setBold(true);
      heading->setFont(font);
      heading->setContentsMargins(0, line == 0 ? 0 : 14, 0, 2);
      paintText(*heading, Theme::current().accent);
      grid->addWidget(heading, line++, 0, 1, 2);
    }
    auto* control = makeControl(row);
    auto* title = new QLabel(text(row.title), form_);
    title->setBuddy(control);
    auto* help = new QLabel(form_);
    help->setWordWrap(true);
    help->setText(row.range.empty() ? text(row.help) : tr("%1; %2").arg(text(row.help), text(row.range)));
    auto small = help->font();
    small.setPointSizeF(small.pointSizeF() * 0.9);
    help->setFont(small);
    paintText(*help, Theme::current().dim);
    grid->addWidget(title, line, 0);
    grid->addWidget(control, line, 1, 2, 1, Qt::AlignTrailing | Qt::AlignVCenter);
    // A title that says the same as its explanation is said once.
    help->setVisible(row.title != row.help || !row.range.empty());
    if (row.title == row.help) help->setText(text(row.range));
    grid->addWidget(help, line + 1, 0);
    grid->setRowMinimumHeight(line + 1, fontMetrics().height());
    controls_.push_back(control);
    line += 2;
  }
  grid->setRowStretch(line, 1);
  formPlace_->addWidget(form_);
}

QWidget* SettingsPage::makeControl(const SettingRow& row) {
  const auto key = text(row.key);
  QWidget* control = nullptr;
  if (row.control == Control::onOff) {
    auto* box = new QCheckBox(form_);
    connect(box, &QCheckBox::clicked, this, [this, key](bool on) { set(key, on); });
    control = box;
  } else if (row.control == Control::wholeNumber) {
    auto* box = new QSpinBox(form_);
    box->setRange(static_cast<int>(row.minimum.value_or(0)), static_cast<int>(row.maximum.value_or(1000000)));
    if (!row.unit.empty()) box->setSuffix(" " + text(row.unit));
    // Typing "50" must not set 5 first.
    box->setKeyboardTracking(false);
    connect(box, &QSpinBox::valueChanged, this, [this, key](int value) { set(key, value); });
    control = box;
  } else {
    // The application reads "45s", "10m", "1h30m" and says what it would take when it cannot.
    auto* edit = new QLineEdit(form_);
    edit->setMaximumWidth(fontMetrics().averageCharWidth() * 16);
    edit->setPlaceholderText(row.control == Control::duration ? tr("none, or 45s, 10m, 1h") : tr("none"));
    connect(edit, &QLineEdit::editingFinished, this, [this, edit, key] {
      if (!edit->isModified()) return;
      edit->setModified(false);
      set(key, edit->text().trimmed().isEmpty() ? "none" : edit->text().trimmed().toStdString());
    });
    control = edit;
  }
  control->setAccessibleName(text(row.title));
  control->setAccessibleDescription(text(row.help));
  control->setObjectName(key);
  return control;
}

void SettingsPage::update(QWidget& control, const SettingRow& row) {
  const QSignalBlocker quiet(control);
  if (auto* box = qobject_cast<QCheckBox*>(&control)) {
    box->setChecked(row.isOn);
  } else if (auto* spin = qobject_cast<QSpinBox*>(&control)) {
    if (!spin->hasFocus() || spin->value() != static_cast<int>(row.numberValue.value_or(0))) {
      spin->setValue(static_cast<int>(row.numberValue.value_or(0)));
    }
  } else if (auto* edit = qobject_cast<QLineEdit*>(&control)) {
    // What is being typed is not taken away.
    if (edit->isModified()) return;
    edit->setText(text(row.text));
  }
}

void SettingsPage::set(const QString& key, const json& value) {
  model_.link().call("settings.set", {{"key", key.toStdString()}, {"value", value}}, this,
                     [this](const Answer& answer) {
                       Q_EMIT problem(answer ? QString() : text(answer.error()));
                       // After a refusal, too: the control goes back to what is in force.
                       mustUpdate_ = true;
                       refresh();
                     });
}

void SettingsPage::resetAll() {
  auto* question = new QMessageBox(
      QMessageBox::Question, tr("Reset Settings"),
      tr("Set every setting back to its default? A pause ends, and starting at login stays as it is."),
      QMessageBox::Reset | QMessageBox::Cancel, this);
  question->setAttribute(Qt::WA_DeleteOnClose);
  connect(question, &QMessageBox::buttonClicked, this, [this, question](QAbstractButton* button) {
    if (question->standardButton(button) != QMessageBox::Reset) return;
    ask("settings.reset", json::object(), [this](const json& result) { show(makeSettingsList(result)); });
  });
  question->open();
}

}  // namespace vimbrel::desktop
