// The subcommands of `kvl`. Each adds itself to the command line; its work runs from main.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <stdexcept>
#include <string>

namespace kvl::cli {

// The exit codes that scripts rely on.
enum EExit : int {
  kDone = 0,    // also when SIGINT or SIGTERM ended a command that runs until then
  kFailed = 1,  // the work failed, or the script has faults
  kUsage = 2,   // the command line is wrong, or a named file can't be read
};

// Ends the command with one message on standard error.
class CCommandError : public std::runtime_error {
 public:
  CCommandError(EExit exit, const std::string& message)
      : std::runtime_error(message), m_exit(exit) {}
  EExit Exit() const { return m_exit; }

 private:
  EExit m_exit;
};

// What a command finds and leaves.
struct CContext {
  std::string m_color = "auto";  // --color
  std::function<int()> m_work;   // set by the subcommand that the user chose
};

// For options whose empty value would mean nothing.
inline CLI::Validator NotEmpty() {
  return {[](const std::string& text) -> std::string { return text.empty() ? "is empty" : ""; },
          ""};
}

// Everything of the command line: the options of `kvl` itself and all subcommands.
void SetUpApp(CLI::App& app, CContext& context);

void AddCheckCommand(CLI::App& app, CContext& context);
void AddFmtCommand(CLI::App& app, CContext& context);
void AddNewCommand(CLI::App& app, CContext& context);
void AddPortsCommand(CLI::App& app, CContext& context);
void AddReplayCommand(CLI::App& app, CContext& context);
void AddRunCommand(CLI::App& app, CContext& context);
void AddTableCommands(CLI::App& app, CContext& context);
void AddTestCommand(CLI::App& app, CContext& context);

}  // namespace kvl::cli
