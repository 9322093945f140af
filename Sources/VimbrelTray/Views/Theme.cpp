// SPDX-License-Identifier: Apache-2.0
#include "Views/Theme.h"

#include <QGuiApplication>

namespace vimbrel::desktop {

const Theme& Theme::light() {
  static const Theme theme{.window = "#f6f7f9",
                           .card = "#ffffff",
                           .border = "#dcdfe5",
                           .text = "#1b1f27",
                           .dim = "#5c6473",
                           .accent = "#0f7a58",
                           .onAccent = "#ffffff",
                           .good = "#0f7a58",
                           .warning = "#9a5b00",
                           .bad = "#c0262c",
                           .track = "#e3e6ec",
                           .hover = "#eef1f5",
                           .selection = "#d8efe6",
                           .stripe = "#f5f7fa",
                           .isDark = false};
  return theme;
}

const Theme& Theme::dark() {
  static const Theme theme{.window = "#1b1e24",
                           .card = "#252932",
                           .border = "#373d49",
                           .text = "#eceef2",
                           .dim = "#a3abba",
                           .accent = "#35cf9a",
                           .onAccent = "#0e2019",
                           .good = "#4adea8",
                           .warning = "#f5b54a",
                           .bad = "#ff7d82",
                           .track = "#3a404c",
                           .hover = "#2e333e",
                           .selection = "#1f4d3f",
                           .stripe = "#292e38",
                           .isDark = true};
  return theme;
}

const Theme& Theme::current() {
  return QGuiApplication::palette().color(QPalette::Window).lightness() < 128 ? dark() : light();
}

QColor Theme::of(Tone tone) const {
  switch (tone) {
    case Tone::good:
      return good;
    case Tone::warning:
      return warning;
    case Tone::bad:
      return bad;
    case Tone::dim:
      return dim;
    case Tone::plain:
      break;
  }
  return text;
}

QColor Theme::of(VimbrelVisualState state) const {
  switch (state) {
    case VimbrelVisualState::working:
      return good;
    case VimbrelVisualState::waiting:
      return warning;
    case VimbrelVisualState::completed:
      return isDark ? QColor("#8ab8ff") : QColor("#1f5fbf");
    case VimbrelVisualState::error:
      return bad;
    case VimbrelVisualState::idle:
      break;
  }
  return dim;
}

QColor Theme::of(AgentType agent) const {
  switch (agent) {
    case AgentType::claude:
      return "#d97757";
    case AgentType::codex:
      return "#5b8def";
    case AgentType::gemini:
      return "#9b72cb";
    case AgentType::opencode:
      return "#e0a526";
    case AgentType::antigravity:
      return "#e25d8f";
    case AgentType::cursor:
      return isDark ? "#9aa4b5" : "#667085";
    case AgentType::windsurf:
      return "#2bb3a3";
    case AgentType::aider:
      return "#6fae3c";
    case AgentType::custom:
      break;
  }
  return "#8a7f72";
}

QPalette Theme::palette() const {
  QPalette palette;
  palette.setColor(QPalette::Window, window);
  palette.setColor(QPalette::WindowText, text);
  palette.setColor(QPalette::Base, card);
  palette.setColor(QPalette::AlternateBase, stripe);
  palette.setColor(QPalette::Text, text);
  palette.setColor(QPalette::PlaceholderText, dim);
  palette.setColor(QPalette::Button, card);
  palette.setColor(QPalette::ButtonText, text);
  palette.setColor(QPalette::BrightText, bad);
  palette.setColor(QPalette::Highlight, accent);
  palette.setColor(QPalette::HighlightedText, onAccent);
  palette.setColor(QPalette::Link, accent);
  palette.setColor(QPalette::ToolTipBase, card);
  palette.setColor(QPalette::ToolTipText, text);
  palette.setColor(QPalette::Mid, border);
  palette.setColor(QPalette::Dark, border);
  palette.setColor(QPalette::Light, hover);
  palette.setColor(QPalette::Shadow, border.darker());
  const auto faded = [&](const QColor& colour) {
    auto result = colour;
    result.setAlpha(110);
    return result;
  };
  for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText}) {
    palette.setColor(QPalette::Disabled, role, faded(text));
  }
  palette.setColor(QPalette::Disabled, QPalette::Highlight, track);
  return palette;
}

}  // namespace vimbrel::desktop
