// SPDX-License-Identifier: Apache-2.0
#include "Setup/Conversation.h"

#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "Commands/ControlSession.h"
#include "Say.h"
#include "Terminal/DisplayText.h"
#include "Terminal/TerminalSize.h"

namespace vimbrel {
namespace {

constexpr std::array endingSignals{SIGINT, SIGTERM, SIGHUP, SIGQUIT};
constexpr std::size_t indent = 2;

volatile std::sig_atomic_t caught = 0;
void onSignal(int number) { caught = number; }

}  // namespace

Conversation::Conversation(Manner manner) : manner_(manner), palette_(Palette::forDescriptor(STDOUT_FILENO)) {
  caught = 0;
  sigset_t mask;
  sigemptyset(&mask);
  for (const int number : endingSignals) {
    struct sigaction action{};
    ::sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;  // As under nohup: whoever started this wants it to go on.
    action = {};
    action.sa_handler = onSignal;
    ::sigaction(number, &action, nullptr);
    sigaddset(&mask, number);
  }
  ::sigprocmask(SIG_BLOCK, &mask, &maskBefore_);
}

Conversation::~Conversation() {
  ::sigprocmask(SIG_SETMASK, &maskBefore_, nullptr);
  for (const int number : endingSignals) {
    struct sigaction action{};
    ::sigaction(number, nullptr, &action);
    if (action.sa_handler == onSignal) std::signal(number, SIG_DFL);
  }
}

void Conversation::heading(std::string_view title) {
  std::printf("\n%s\n", palette_.paint(Tone::strong, title).c_str());
}

void Conversation::tell(std::string_view sentence, Tone tone) {
  const auto width = outputWidth(STDOUT_FILENO);
  for (const auto& line : wrapped(displayable(sentence), width > 20 + indent ? width - indent : 0)) {
    std::printf("%*s%s\n", static_cast<int>(indent), "", palette_.paint(tone, line).c_str());
  }
}

void Conversation::show(std::string_view line) { std::printf("      %s\n", displayable(line).c_str()); }

Conversation::Answer Conversation::propose(const std::string& change, bool isRecommended) {
  switch (manner_) {
    case Manner::asks:
      return question(change + "?", isRecommended);
    case Manner::agrees:
      if (endingSignal()) return Answer::stop;
      if (isRecommended) tell("-> " + change, Tone::strong);
      return isRecommended ? Answer::yes : Answer::no;
    case Manner::rehearses:
      break;
  }
  if (isRecommended) tell(say("It would now: %1", {change}), Tone::strong);
  return endingSignal() ? Answer::stop : Answer::no;
}

Conversation::Answer Conversation::ask(const std::string& text, bool isRecommended) {
  if (manner_ == Manner::asks) return question(text, isRecommended);
  return endingSignal() ? Answer::stop : Answer::no;
}

Conversation::Answer Conversation::question(const std::string& text, bool isRecommended) {
  for (;;) {
    std::printf("  %s %s ", palette_.paint(Tone::strong, displayable(text)).c_str(),
                isRecommended ? say("[Y/n/q]").c_str() : say("[y/N/q]").c_str());
    std::fflush(stdout);
    const auto answer = line();
    if (!answer) return Answer::stop;
    if (answer->empty()) return isRecommended ? Answer::yes : Answer::no;
    if (isYes(*answer)) return Answer::yes;
    if (*answer == "n" || *answer == "N" || *answer == "no" || *answer == "s" ||
        *answer == sayAs("answer", "no")) {
      return Answer::no;
    }
    if (*answer == "q" || *answer == "Q" || *answer == "quit") return Answer::stop;
    std::printf("  %s\n", say("y for yes, n for no (it goes on with the next step), q to end here.").c_str());
  }
}

Conversation::Event Conversation::waitFor(int descriptor) {
  std::fflush(stdout);
  for (;;) {
    if (endingSignal()) return Event::stop;
    std::array<pollfd, 2> waited{{{.fd = descriptor, .events = POLLIN, .revents = 0},
                                  {.fd = STDIN_FILENO, .events = POLLIN, .revents = 0}}};
    // Only here may a signal arrive, so that none is missed between looking and waiting.
    if (::ppoll(waited.data(), waited.size(), nullptr, &maskBefore_) < 0) {
      if (errno != EINTR) return Event::stop;
      continue;
    }
    if (waited[0].revents != 0) return Event::readable;
    if (waited[1].revents == 0) continue;
    const auto answer = line();
    return !answer || *answer == "q" ? Event::stop : Event::goOn;
  }
}

std::optional<int> Conversation::endingSignal() {
  // Lets in what has been held back until now.
  if (caught == 0) (void)::ppoll(nullptr, 0, std::array<timespec, 1>{}.data(), &maskBefore_);
  return caught == 0 ? std::nullopt : std::optional<int>(caught);
}

std::optional<std::string> Conversation::line() {
  for (;;) {
    if (const auto end = typed_.find('\n'); end != std::string::npos) {
      auto answer = typed_.substr(0, end);
      typed_.erase(0, end + 1);
      const auto first = answer.find_first_not_of(" \t\r");
      if (first == std::string::npos) return "";
      return answer.substr(first, answer.find_last_not_of(" \t\r") - first + 1);
    }
    if (endingSignal()) return std::nullopt;
    pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
    if (::ppoll(&input, 1, nullptr, &maskBefore_) < 0) {
      if (errno != EINTR) return std::nullopt;
      continue;
    }
    char buffer[256];
    const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return std::nullopt;
    typed_.append(buffer, static_cast<std::size_t>(count));
  }
}

}  // namespace vimbrel
