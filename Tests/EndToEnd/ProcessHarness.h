// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Support/Fd.h"
#include "TemporaryDirectory.h"

namespace vimbrel {

/// Long enough for any machine; nothing here waits longer than what it waits for takes.
inline constexpr std::chrono::seconds patience{30};

/// Asks again until the answer is yes or `patience` is over.
bool eventually(const std::function<bool()>& condition);

struct FinishedProcess {
  int status = -1;  ///< the exit status, or 128 + the signal that ended it
  std::string output;
  std::string errors;
};

/// A process of its own group, ended with this object.
class RunningProcess {
 public:
  enum class Terminal { none, pseudo };
  using Environment = std::map<std::string, std::string>;

  /// With a pseudo-terminal of 24 rows and the given columns, it is the process's standard input, output and
  /// error, and its controlling terminal.
  RunningProcess(const std::vector<std::string>& command, const Environment& environment,
                 Terminal terminal = Terminal::none, int columns = 80);
  ~RunningProcess();
  RunningProcess(const RunningProcess&) = delete;
  RunningProcess& operator=(const RunningProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  void signal(int number) const;
  /// Types on its terminal.
  void type(const std::string& keys) const;
  void resize(int columns, int rows) const;
  /// The terminal's settings, for comparison.
  [[nodiscard]] std::string terminalMode() const;
  /// What it has written until now; on a terminal everything is output.
  const std::string& output();
  const std::string& errors();
  /// Its status, once it has ended within `patience`; then it is ended by force.
  std::optional<int> wait();
  /// True when it is stopped by a signal.
  [[nodiscard]] bool isStopped() const;

 private:
  void readAvailable();
  pid_t pid_ = -1;
  Fd output_;
  Fd errors_;
  Fd terminalSlave_;
  std::string outputText_;
  std::string errorText_;
  std::optional<int> status_;
};

/// A user's home with nothing in it, and the programs of this build.
class Sandbox {
  TemporaryDirectory directory_;  // The environment below names it.

 public:
  Sandbox();
  [[nodiscard]] const std::string& home() const { return directory_.path(); }
  [[nodiscard]] std::string file(const std::string& name) const { return directory_.file(name); }
  [[nodiscard]] std::string runDirectory() const { return file(".local/share/Vimbrel/run"); }
  /// What processes in this home are started with; more can be added.
  RunningProcess::Environment environment;

  void write(const std::string& name, const std::string& contents) const;
  /// `vimbrel` with these arguments, to its end.
  [[nodiscard]] FinishedProcess vimbrel(const std::vector<std::string>& arguments) const;
  [[nodiscard]] FinishedProcess relay(const std::vector<std::string>& arguments) const;
  /// `vimbrel run --simulate` on the file "world.json", which answers when this returns.
  [[nodiscard]] std::unique_ptr<RunningProcess> startSimulated() const;

 private:
  [[nodiscard]] FinishedProcess runToEnd(const std::vector<std::string>& command) const;
};

/// The path of the built program.
[[nodiscard]] std::string vimbrelProgram();

}  // namespace vimbrel
