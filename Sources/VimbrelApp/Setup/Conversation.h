// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>
#include <optional>
#include <string>
#include <string_view>

#include "Terminal/Palette.h"

namespace vimbrel {

/// A guided talk with a person on the terminal: says what there is, and asks before anything is changed. The
/// signals that end a program (Ctrl-C among them) are held back while one exists and are looked at only where
/// a person is waited for, so that no step between two questions is ever left half done. One at a time.
class Conversation {
 public:
  enum class Manner {
    asks,       ///< every change needs a yes
    agrees,     ///< takes each recommended change without asking
    rehearses,  ///< says what it would do, and does nothing
  };
  enum class Answer { yes, no, stop };
  /// What a waiting ended with: the descriptor has something to read, the person wants to go on, or to end.
  enum class Event { readable, goOn, stop };

  explicit Conversation(Manner manner);
  ~Conversation();
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;

  [[nodiscard]] Manner manner() const { return manner_; }
  [[nodiscard]] const Palette& palette() const { return palette_; }

  void heading(std::string_view title);
  /// A sentence, broken to the terminal's width.
  void tell(std::string_view sentence, Tone tone = Tone::plain);
  /// A command or a path on a line of its own, as it is to be typed.
  void show(std::string_view line);

  /// A change of the machine, named by an imperative ("Start it now"). Yes means: do it.
  [[nodiscard]] Answer propose(const std::string& change, bool isRecommended = true);
  /// Something to look at that changes nothing; only a person is asked, otherwise the answer is no.
  [[nodiscard]] Answer ask(const std::string& question, bool isRecommended = true);
  /// Waits for the descriptor; Enter goes on without it.
  [[nodiscard]] Event waitFor(int descriptor);

  /// The signal that the person ended it with, if one came.
  [[nodiscard]] std::optional<int> endingSignal();

 private:
  [[nodiscard]] Answer question(const std::string& text, bool isRecommended);
  /// A line that was typed; absent when the talk is at its end.
  [[nodiscard]] std::optional<std::string> line();

  const Manner manner_;
  const Palette palette_;
  sigset_t maskBefore_{};
  std::string typed_;
};

}  // namespace vimbrel
