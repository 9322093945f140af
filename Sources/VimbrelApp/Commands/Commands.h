// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace vimbrel {

/// How a reporting command answers.
enum class Output { text, json };

// One function per subcommand of `vimbrel`, each in the file of its name; the result is the exit status. All
// of them are clients of the running application. `vimbrel run` itself is in Run/.
int statusCommand(Output output);
/// The status on one line, as a bar reads it ("plain" when no format is named); with `follow` a line for each
/// change, until nobody reads them.
int statusBarCommand(const std::string& format, bool follow, Output output);
int watchCommand();
int whyCommand(Output output);
int sessionsCommand(Output output);
int settingsListCommand(Output output);
int settingsGetCommand(const std::string& key, Output output);
int settingsSetCommand(const std::string& key, const std::string& value, Output output);
/// An empty key resets every setting.
int settingsResetCommand(const std::string& key, Output output);
/// "45m", or "until" and a time of day.
int pauseCommand(const std::vector<std::string>& when);
int resumeCommand();
int holdCommand(bool on);
/// Runs a command, whose exit status is the result, under a hold that ends with it or after `duration`.
int holdWhileCommand(const std::string& duration, bool lid, const std::vector<std::string>& command);
int doctorCommand(Output output);
/// Days ("2026-01-31") or ISO 8601 times; empty: the last week, up to now.
int historyCommand(const std::string& since, const std::string& until, Output output);
int diagnosticsCommand();
/// Runs the scenario in this file on virtual time and prints what the machine would have done. Needs no
/// running application.
int simulateCommand(const std::string& file, Output output);

int agentsCommand(Output output);
struct AgentSetupOptions {
  std::string agent;    ///< an agent's raw value
  std::string relay;    ///< the relay's path where the agent runs
  std::string socket;   ///< the hook socket there; empty for the relay's own choice
  bool copies = false;  ///< puts the snippet on the clipboard
  bool waits = true;    ///< for the agent's first event
};
int agentSetupCommand(const AgentSetupOptions& options, Output output);
/// Reports once through the relay as that agent would.
int agentTestCommand(const std::string& agent, const std::string& relay, Output output);

/// Days ("2026-01-31") or ISO 8601 times, an agent's raw value, and the time zone whose days are meant; empty
/// means no limit, and the user's own zone.
struct UsageRange {
  std::string since;
  std::string until;
  std::string agent;
  std::string timezone;
};
int usageTodayCommand(Output output);
/// `by` is daily, weekly, monthly, sessions, models, projects or blocks.
int usageReportCommand(const std::string& by, const UsageRange& range, Output output);
int usageExportCommand(const std::string& format);
int usageResetCommand(bool confirmed);
int usageRatesCommand(Output output);
/// Waits for the import, with a progress bar on a terminal. `all` opens unchanged files too.
int usageImportCommand(bool all, Output output);

/// A money budget as the command line names it; `amount` is empty where none is asked for.
struct BudgetArguments {
  std::string period;
  std::string amount;
  std::string agent;
  std::string project;
};
int budgetsCommand(Output output);
int budgetsSetCommand(const BudgetArguments& arguments);
int budgetsRemoveCommand(const BudgetArguments& arguments);
/// Exits with 1 when a money budget is overspent.
int budgetsCheckCommand(Output output);
/// Claude Code's status line: its document on standard input, one line on standard output.
int statusLineCommand();

}  // namespace vimbrel
