// SPDX-License-Identifier: Apache-2.0
#include "Windows/SettingsPage.h"

#include <QBoxLayout>
#include <QDesktopServices>
#include <QDir>
#include <QEvent>
#include <QFileInfo>
#include <QLineEdit>
#include <QMessageBox>
#include <QPushButton>
#include <QScrollArea>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QUrl>
#include <algorithm>
#include <nlohmann/json.hpp>

#include "Views/Card.h"
#include "Views/SwitchButton.h"
#include "Views/ToneLabel.h"

namespace vimbrel::desktop {

using nlohmann::json;
using Control = SettingRow::Control;

namespace {

QString text(const std::string& value) { return QString::fromStdString(value); }

/// A path as people write it.
QString homeShortened(const QString& path) {
  const auto home = QDir::homePath();
  return path.startsWith(home + "/") ? "~" + path.mid(home.size()) : path;
}

}  // namespace

SettingsPage::SettingsPage(DesktopModel& model)
    : Page(model),
      formPlace_(new QVBoxLayout),
      location_(new ToneLabel(Tone::dim, this)),
      warnings_(new ToneLabel(Tone::warning, this)) {
  auto* layout = new QVBoxLayout(this);
  warnings_->setWordWrap(true);
  layout->addWidget(warnings_);
  auto* scroll = new QScrollArea(this);
  scroll->setWidgetResizable(true);
  scroll->setFrameShape(QFrame::NoFrame);
  auto* inside = new QWidget;
  formPlace_->setContentsMargins(0, 0, 8, 0);
  inside->setLayout(formPlace_);
  scroll->setWidget(inside);
  layout->addWidget(scroll, 1);
  auto* foot = new QHBoxLayout;
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
  location_->setText(homeShortened(text(list.location)));
  QStringList lines;
  for (const auto& warning : list.warnings) lines << text(warning);
  warnings_->setText(lines.join("\n"));
  warnings_->setVisible(!lines.isEmpty());
}

void SettingsPage::build(const SettingsList& list) {
  delete form_;
  controls_.clear();
  form_ = new QWidget(this);
  auto* column = new QVBoxLayout(form_);
  column->setContentsMargins(0, 0, 0, 8);
  column->setSpacing(6);
  std::string section;
  Card* card = nullptr;
  for (const auto& row : list.rows) {
    if (card == nullptr || row.section != section) {
      section = row.section;
      auto* heading = new ToneLabel(Tone::dim, form_, text(section));
      heading->setScale(1.0, true);
      heading->setContentsMargins(4, card == nullptr ? 0 : 12, 0, 2);
      column->addWidget(heading);
      card = new Card(form_);
      auto* lines = new QVBoxLayout(card);
      lines->setContentsMargins(1, 1, 1, 1);
      lines->setSpacing(0);
      column->addWidget(card);
    } else {
      card->layout()->addWidget(new Divider(card));
    }
    card->layout()->addWidget(makeLine(row, card));
  }
  column->addStretch(1);
  formPlace_->addWidget(form_);
}

QWidget* SettingsPage::makeLine(const SettingRow& row, QWidget* card) {
  auto* line = new QWidget(card);
  auto* layout = new QHBoxLayout(line);
  layout->setContentsMargins(14, 9, 14, 9);
  layout->setSpacing(24);
  auto* texts = new QVBoxLayout;
  texts->setSpacing(1);
  auto* control = makeControl(row);
  auto* title = new ToneLabel(Tone::plain, line, text(row.title));
  title->setBuddy(control);
  texts->addStretch(1);
  texts->addWidget(title);
  // A title that says the same as its explanation is said once.
  auto explanation = row.title == row.help ? QString() : text(row.help);
  if (!row.range.empty()) {
    explanation = explanation.isEmpty() ? text(row.range) : explanation + "; " + text(row.range);
  }
  if (!explanation.isEmpty()) {
    auto* help = new ToneLabel(Tone::dim, line, explanation);
    help->setWordWrap(true);
    help->setScale(0.92);
    texts->addWidget(help);
  }
  texts->addStretch(1);
  layout->addLayout(texts, 1);
  layout->addWidget(control, 0, Qt::AlignTrailing | Qt::AlignVCenter);
  controls_.push_back(control);
  return line;
}

QWidget* SettingsPage::makeControl(const SettingRow& row) {
  const auto key = text(row.key);
  QWidget* control = nullptr;
  if (row.control == Control::onOff) {
    auto* box = new SwitchButton({}, form_);
    connect(box, &SwitchButton::changeRequested, this, [this, key](bool on) { set(key, on); });
    control = box;
  } else if (row.control == Control::wholeNumber) {
    auto* box = new QSpinBox(form_);
    box->setRange(static_cast<int>(row.minimum.value_or(0)), static_cast<int>(row.maximum.value_or(1000000)));
    if (!row.unit.empty()) box->setSuffix(" " + text(row.unit));
    // Typing "50" must not set 5 first.
    box->setKeyboardTracking(false);
    // Who scrolls the page with the wheel does not mean the number under the mouse.
    box->setFocusPolicy(Qt::StrongFocus);
    box->installEventFilter(this);
    connect(box, &QSpinBox::valueChanged, this, [this, key](int value) { set(key, value); });
    control = box;
  } else {
    // The application reads "45s", "10m", "1h30m" and says what it would take when it cannot.
    auto* edit = new QLineEdit(form_);
    edit->setFixedWidth(fontMetrics().averageCharWidth() * 20);
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

bool SettingsPage::eventFilter(QObject* watched, QEvent* event) {
  auto* box = qobject_cast<QSpinBox*>(watched);
  if (box != nullptr && event->type() == QEvent::Wheel && !box->hasFocus()) {
    event->ignore();
    return true;
  }
  return Page::eventFilter(watched, event);
}

void SettingsPage::update(QWidget& control, const SettingRow& row) {
  const QSignalBlocker quiet(control);
  if (auto* box = qobject_cast<SwitchButton*>(&control)) {
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
