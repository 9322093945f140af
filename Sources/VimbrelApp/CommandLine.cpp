// SPDX-License-Identifier: Apache-2.0
#include "CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include "Commands/Commands.h"
#include "Commands/ControlSession.h"
#include "Commands/ExitCode.h"
#include "InstalledPrograms.h"
#include "Run/RunCommand.h"
#include "Say.h"
#include "Setup/SetupCommand.h"
#include "Support/ClosestMatch.h"
#include "Terminal/DisplayText.h"
#include "UserLanguage.h"
#include "Version.h"

namespace vimbrel {
namespace {

/// The values that the arguments fill in, and what is to be done with them.
struct Invocation {
  RunOptions run;
  SetupOptions setup;
  bool installService = false;
  bool json = false;
  std::string format;
  std::string scenario;
  bool follow = false;
  std::string key;
  std::string value;
  std::vector<std::string> when;
  std::string onOrOff;
  bool lid = false;
  std::vector<std::string> heldCommand;  ///< what follows "--", as it was given
  std::vector<std::string> unseparated;  ///< what looks like a command and does not follow "--"
  AgentSetupOptions agentSetup;
  UsageRange range;
  BudgetArguments budget;
  bool confirmed = false;
  std::string exportFormat = "json";
  bool all = false;
  std::function<int()> command;

  [[nodiscard]] Output output() const { return json ? Output::json : Output::text; }
};

CLI::App* add(CLI::App& parent, const std::string& name, const std::string& description,
              Invocation& invocation, std::function<int()> command) {
  auto* app = parent.add_subcommand(name, description);
  app->callback([&invocation, command = std::move(command)] { invocation.command = command; });
  return app;
}

void addJsonFlag(CLI::App* app, Invocation& invocation) {
  app->add_flag("--json", invocation.json, say("Print one JSON document"));
}

/// Two commands in one: the switch, and the hold of one command.
int holdAsAsked(const Invocation& in) {
  if (!in.heldCommand.empty() && in.unseparated.empty()) {
    return holdWhileCommand(in.onOrOff, in.lid, in.heldCommand);
  }
  const bool isSwitch = in.onOrOff == "on" || in.onOrOff == "off";
  if (isSwitch && !in.lid && in.unseparated.empty()) return holdCommand(in.onOrOff == "on");
  return reportUsage(
      say("hold takes on, off, or a time and a command, such as: vimbrel hold --lid 45m -- make"));
}

void describe(CLI::App& app, Invocation& in) {
  auto* run = add(app, "run", say("Keep this machine awake while agents work, until stopped"), in, [&] {
    return in.installService ? installServiceCommand() : runCommand(in.run, std::string(versionNumber()));
  });
  run->add_option("--simulate", in.run.worldFile,
                  say("Run on the simulated machine that this file describes"))
      ->option_text("WORLD.json");
  run->add_flag("--lines", in.run.linesOnly, say("Print a line per change, also on a terminal"));
  run->add_flag("--debug", in.run.logDetails, say("Log details too"));
  run->add_flag("--install-service", in.installService,
                say("Instead of running, install a user service that starts it at login"));
  auto* setup = add(app, "setup", say("Start it at login and connect what is here; asks before each change"),
                    in, [&] { return setupCommand(in.setup); });
  setup->add_flag("--yes", in.setup.agrees, say("Do not ask: make every recommended change"));
  setup->add_flag("--dry-run", in.setup.rehearses, say("Say what would be changed, and change nothing"));

  auto* status = add(app, "status", say("Show what is decided, held and seen"), in, [&] {
    const bool isForBar = in.follow || !in.format.empty();
    return isForBar ? statusBarCommand(in.format, in.follow, in.output()) : statusCommand(in.output());
  });
  addJsonFlag(status, in);
  status
      ->add_option("--format", in.format,
                   say("On one line for a status bar: plain, waybar, i3blocks or polybar"))
      ->type_name("{plain,waybar,i3blocks,polybar}")  // For completion; what is wrong is said later.
      ->option_text("FORMAT");
  status->add_flag("--follow", in.follow, say("A line for each change"));
  add(app, "watch", say("Show the same live, on the whole terminal"), in, [] { return watchCommand(); });
  addJsonFlag(add(app, "why", say("Show how each rule contributed to the decision"), in,
                  [&] { return whyCommand(in.output()); }),
              in);
  addJsonFlag(add(app, "sessions", say("List the agents' sessions"), in,
                  [&] { return sessionsCommand(in.output()); }),
              in);

  auto* settings = app.add_subcommand("settings", say("List and change settings"));
  settings->require_subcommand(1);
  addJsonFlag(
      add(*settings, "list", say("List every setting"), in, [&] { return settingsListCommand(in.output()); }),
      in);
  auto* get = add(*settings, "get", say("Print one setting's value"), in,
                  [&] { return settingsGetCommand(in.key, in.output()); });
  get->add_option("key", in.key, say("The setting"))->required();
  addJsonFlag(get, in);
  auto* set = add(*settings, "set", say("Change one setting"), in,
                  [&] { return settingsSetCommand(in.key, in.value, in.output()); });
  set->add_option("key", in.key, say("The setting"))->required();
  set->add_option("value", in.value, say("on or off, a number, a duration such as 45s, a time"))->required();
  addJsonFlag(set, in);
  auto* reset = add(*settings, "reset", say("Give one setting, or all but launchAtLogin, the default again"),
                    in, [&] { return settingsResetCommand(in.key, in.output()); });
  reset->add_option("key", in.key, say("The setting; all but launchAtLogin when it is left out"));
  addJsonFlag(reset, in);

  add(app, "pause", say("Let the machine sleep for a while: pause 45m, pause until 14:00"), in,
      [&] { return pauseCommand(in.when); })
      ->add_option("when", in.when, say("90s, 45m, 1h30m, or: until 14:00"))
      ->required()
      ->expected(1, 2);
  add(app, "resume", say("End a pause"), in, [] { return resumeCommand(); });
  auto* hold =
      add(app, "hold", say("Hold by hand: hold on, hold off; or for a command: hold --lid 45m -- make"), in,
          [&] { return holdAsAsked(in); });
  hold->add_option("state", in.onOrOff, say("on or off; with a command, for how long at most"))->required();
  hold->add_flag("--lid", in.lid, say("Keep awake with the lid closed too, while the command runs"));
  hold->add_option("command", in.unseparated, say("The command and its arguments, after --"));
  addJsonFlag(
      add(app, "doctor", say("Examine what can keep this machine awake, and what to do about the rest"), in,
          [&] { return doctorCommand(in.output()); }),
      in);
}

void describeHistory(CLI::App& app, Invocation& in) {
  auto* history =
      add(app, "history", say("Show when this machine was kept awake, for whom, and how each time ended"), in,
          [&] { return historyCommand(in.range.since, in.range.until, in.output()); });
  history->add_option("--since", in.range.since, say("From this day or time on; a week ago unless given"))
      ->option_text("DAY");
  history->add_option("--until", in.range.until, say("Up to this day, or time"))->option_text("DAY");
  addJsonFlag(history, in);
  add(app, "diagnostics", say("Print one JSON document about the running application, for support"), in,
      [] { return diagnosticsCommand(); });
  auto* simulate =
      add(app, "simulate", say("Run a scripted day on virtual time, and print what the machine would do"), in,
          [&] { return simulateCommand(in.scenario, in.output()); });
  simulate->add_option("scenario", in.scenario, say("The file that describes it"))
      ->required()
      ->option_text("SCENARIO.json");
  addJsonFlag(simulate, in);
}

/// The relay that belongs to this program, unless the user named another; empty when there is none, which
/// the user was told.
std::string relayFor(const Invocation& in) {
  if (!in.agentSetup.relay.empty()) return in.agentSetup.relay;
  const auto relay = installedRelay(in.run.program);
  if (!relay) {
    (void)reportProblem(
        say("vimbrel-relay is not installed beside this program or on the search path; install it, or give "
            "--relay PATH"));
  }
  return relay.value_or("");
}

void describeAgents(CLI::App& app, Invocation& in) {
  auto* agents =
      app.add_subcommand("agents", say("Show which agents are here and connected, and connect one"));
  agents->callback([&in, agents] {
    if (agents->get_subcommands().empty()) in.command = [&in] { return agentsCommand(in.output()); };
  });
  addJsonFlag(agents, in);
  auto* setup =
      add(*agents, "setup", say("Show what to paste where, and wait for the first event"), in, [&in] {
        in.agentSetup.relay = relayFor(in);
        return in.agentSetup.relay.empty() ? exitCode::failed : agentSetupCommand(in.agentSetup, in.output());
      });
  auto* test =
      add(*agents, "test", say("Report once as that agent would, and show what becomes of it"), in, [&in] {
        const auto relay = relayFor(in);
        return relay.empty() ? exitCode::failed : agentTestCommand(in.agentSetup.agent, relay, in.output());
      });
  for (auto* each : {setup, test}) {
    each->add_option("agent", in.agentSetup.agent, say("claude, codex, gemini, opencode, …"))->required();
    each->add_option("--relay", in.agentSetup.relay, say("The relay where the agent runs"))
        ->option_text("PATH");
    addJsonFlag(each, in);
  }
  setup->add_option("--socket", in.agentSetup.socket, say("The hook socket where the agent runs"))
      ->option_text("PATH");
  setup->add_flag("--copy", in.agentSetup.copies, say("Put what is to be pasted on the clipboard"));
  setup->add_flag_callback(
      "--no-wait", [&in] { in.agentSetup.waits = false; }, say("Do not wait for the first event"));
}

void describeUsage(CLI::App& app, Invocation& in) {
  auto* usage = app.add_subcommand("usage", say("Show what the agents spent"));
  usage->callback([&in, usage] {
    // A report below it has set its own command already.
    if (usage->get_subcommands().empty()) in.command = [&in] { return usageTodayCommand(in.output()); };
  });
  addJsonFlag(usage, in);
  const auto addRange = [&](CLI::App* report) {
    report->add_option("--since", in.range.since, say("From this day or time on"))->option_text("DAY");
    report->add_option("--until", in.range.until, say("Up to this day, or time"))->option_text("DAY");
    report->add_option("--agent", in.range.agent, say("Of one agent only"));
    report->add_option("--timezone", in.range.timezone, say("Days of this time zone, such as Europe/Berlin"))
        ->option_text("ZONE");
    addJsonFlag(report, in);
  };
  for (const auto& [by, description] :
       {std::pair("daily", toSay("By day")), std::pair("weekly", toSay("By week")),
        std::pair("monthly", toSay("By month")), std::pair("sessions", toSay("By session")),
        std::pair("models", toSay("By model")), std::pair("projects", toSay("By directory")),
        std::pair("blocks", toSay("By five-hour billing window"))}) {
    auto* report = usage->add_subcommand(by, say(description));
    report->callback([&in, by = std::string(by)] {
      in.command = [&in, by] { return usageReportCommand(by, in.range, in.output()); };
    });
    addRange(report);
  }
  auto* usageExport = usage->add_subcommand("export", say("Print the totals that may leave the machine"));
  usageExport->add_option("--format", in.exportFormat, say("json, prometheus or otlp-json"))
      ->check(CLI::IsMember({"json", "prometheus", "otlp-json"}));
  usageExport->callback([&in] { in.command = [&in] { return usageExportCommand(in.exportFormat); }; });
  auto* reset = usage->add_subcommand("reset", say("Forget what was recorded; asks first"));
  reset->add_flag("--yes", in.confirmed, say("Do not ask"));
  reset->callback([&in] { in.command = [&in] { return usageResetCommand(in.confirmed); }; });
  addJsonFlag(add(*usage, "rates", say("List the prices in force"), in,
                  [&] { return usageRatesCommand(in.output()); }),
              in);
  auto* import = add(*usage, "import", say("Read what the agents wrote since the last time"), in,
                     [&] { return usageImportCommand(in.all, in.output()); });
  import->add_flag("--all", in.all, say("Open the files that did not change, too"));
  addJsonFlag(import, in);
}

void describeBudgets(CLI::App& app, Invocation& in) {
  auto* budgets = app.add_subcommand("budgets", say("Show what is left: context, quota, money"));
  budgets->callback([&in, budgets] {
    if (budgets->get_subcommands().empty()) in.command = [&in] { return budgetsCommand(in.output()); };
  });
  addJsonFlag(budgets, in);
  const auto addScope = [&](CLI::App* command) {
    command->add_option("period", in.budget.period, say("daily, weekly or monthly"))
        ->required()
        ->check(CLI::IsMember({"daily", "weekly", "monthly"}));
    command->add_option("--agent", in.budget.agent, say("For one agent only"));
    command->add_option("--project", in.budget.project, say("For one directory and those below it only"));
  };
  auto* set = add(*budgets, "set", say("Set how much may be spent: budgets set daily 20"), in,
                  [&] { return budgetsSetCommand(in.budget); });
  addScope(set);
  set->add_option("amount", in.budget.amount, say("US dollars"))->required();
  addScope(add(*budgets, "remove", say("Remove a money budget"), in,
               [&] { return budgetsRemoveCommand(in.budget); }));
  addJsonFlag(add(*budgets, "check", say("Exit with 1 when a money budget is overspent"), in,
                  [&] { return budgetsCheckCommand(in.output()); }),
              in);
  add(app, "statusline", say("Print Claude Code's status line; reads its document on standard input"), in,
      [] { return statusLineCommand(); });
}

/// What the first argument that is neither a known command nor a known option was probably meant to be.
std::string hintFor(CLI::App& app, const std::vector<std::string>& arguments) {
  const std::function<bool(CLI::App*)> anyCommand = [](CLI::App*) { return true; };
  auto* current = &app;
  for (const auto& argument : arguments) {
    std::vector<std::string> names;
    if (argument.starts_with("-")) {
      const auto name = argument.substr(0, argument.find('='));
      if (current->get_option_no_throw(name) != nullptr) continue;
      for (const auto* option : current->get_options()) {
        for (const auto& each : option->get_lnames()) names.push_back("--" + each);
      }
    } else {
      const auto commands = current->get_subcommands(anyCommand);
      const auto next = std::ranges::find(commands, argument, &CLI::App::get_name);
      if (next != commands.end()) {
        current = *next;
        continue;
      }
      for (const auto* each : commands) names.push_back(each->get_name());
      if (names.empty()) continue;
    }
    const std::vector<std::string_view> candidates(names.begin(), names.end());
    const auto close = closestMatch(argument, candidates);
    const bool isOption = argument.starts_with("-");
    const auto shown = displayable(argument);
    if (!close)
      return isOption ? say("there is no option %1", {shown}) : say("there is no command %1", {shown});
    return isOption ? say("there is no option %1; did you mean %2?", {shown, *close})
                    : say("there is no command %1; did you mean %2?", {shown, *close});
  }
  return {};
}

int reportMisuse(CLI::App& app, const CLI::ParseError& error, const std::vector<std::string>& arguments) {
  auto message = hintFor(app, arguments);
  if (message.empty()) message = displayable(retell(error.what()));
  std::string command = "vimbrel";
  for (const CLI::App* each = &app; !each->get_subcommands().empty();) {
    each = each->get_subcommands().front();
    command += " " + each->get_name();
  }
  std::fprintf(stderr, "vimbrel: %s\n%s\n", message.c_str(), say("See: %1 --help", {command}).c_str());
  return exitCode::usage;
}

/// Gives the parser's own words in the help of a command, and of those below it, the user's language.
void translateParser(CLI::App& app) {
  for (auto* option : app.get_options()) {
    if (option->get_group() == "Options") option->group(say("Options"));
  }
  app.get_help_ptr()->description(say("Print this help message and exit"));
  for (auto* command : app.get_subcommands([](CLI::App*) { return true; })) {
    if (command->get_group() == "Subcommands") command->group(say("Subcommands"));
    translateParser(*command);
  }
}

void translateHelp(CLI::App& app) {
  auto& formatter = *app.get_formatter();
  formatter.label("Usage", sayAs("help", "Usage"));
  for (const auto* label : {toSay("OPTIONS"), toSay("SUBCOMMAND"), toSay("SUBCOMMANDS"), toSay("Positionals"),
                            toSay("REQUIRED")}) {
    formatter.label(label, say(label));
  }
  app.get_version_ptr()->description(say("Display program version information and exit"));
  translateParser(app);
}

/// Takes what follows the first "--" of a `vimbrel hold` out of the arguments: the parser gives "[a,b]" a
/// meaning of its own, and another program's arguments are that program's.
std::vector<std::string> takeHeldCommand(std::vector<std::string>& arguments) {
  if (arguments.empty() || arguments.front() != "hold") return {};
  const auto separator = std::ranges::find(arguments, "--");
  if (separator == arguments.end()) return {};
  std::vector<std::string> command(separator + 1, arguments.end());
  arguments.erase(separator, arguments.end());
  return command;
}

/// The status of a command, unless what it printed did not arrive: a script that goes by the status would
/// take a part for the whole. A reader that has read enough is no failure.
int statusOfPrinted(int status) {
  errno = 0;
  const bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
  if (!failed || errno == EPIPE) return status;
  const int reported =
      reportProblem(say("cannot write what it printed: %1", {std::strerror(errno != 0 ? errno : EIO)}));
  return status == exitCode::done ? reported : status;
}

/// Everything that `vimbrel` understands.
void compose(CLI::App& app, Invocation& invocation) {
  app.description(say("Keeps this machine awake while AI coding agents work."));
  app.name("vimbrel");
  app.set_version_flag("--version", "vimbrel " + versionText());
  app.require_subcommand(1);
  app.get_formatter()->column_width(24);
  describe(app, invocation);
  describeHistory(app, invocation);
  describeAgents(app, invocation);
  describeUsage(app, invocation);
  describeBudgets(app, invocation);
  std::string meanings = say("Exit status:") + "\n";
  for (const auto& [status, meaning] : exitCode::meanings) {
    meanings += "  " + std::to_string(status) + "  " + say(meaning) + "\n";
  }
  app.footer(meanings);
  if (spokenLanguage() != "en") translateHelp(app);
}

}  // namespace

void withCommandLine(const std::function<void(CLI::App&)>& look) {
  Invocation invocation;
  CLI::App app;
  compose(app, invocation);
  look(app);
}

int runCommandLine(int argc, char** argv) {
  Invocation invocation;
  invocation.run.program = argc > 0 ? argv[0] : "";
  invocation.setup.program = invocation.run.program;
  if (argc <= 1 && isOnTerminal()) return greetingCommand(std::string(versionNumber()));
  bool keepsRunning = false;
  {
    std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    invocation.heldCommand = takeHeldCommand(arguments);
    CLI::App app;
    compose(app, invocation);
    try {
      // The parser takes the last first.
      app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::Success& wanted) {
      return statusOfPrinted(app.exit(wanted));  // --help and --version print and end well.
    } catch (const CLI::ParseError& error) {
      return reportMisuse(app, error, arguments);
    }
    keepsRunning = app.got_subcommand("run");
  }
  try {
    const int status = invocation.command();
    // Keeping awake is what counts there, and nobody need read its lines.
    return keepsRunning ? status : statusOfPrinted(status);
  } catch (const std::exception& problem) {
    // What the system refuses before anything can go on without it: memory, threads, descriptors.
    return reportProblem(say("cannot go on: %1", {problem.what()}));
  }
}

}  // namespace vimbrel
