// The command line of `kvl`: its options and all subcommands.
#include "cli/commands.h"
#include "version.h"

namespace kvl::cli {

void SetUpApp(CLI::App& app, CContext& context) {
  app.name("kvl");
  app.description("kvl turns the bytes of serial and TCP device lines into named live values.");
  app.set_version_flag("--version", "kvl " KVL_VERSION);
  app.add_option("--color", context.m_color, "When to use colour")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
  app.require_subcommand(1);
  app.fallthrough();
  AddCheckCommand(app, context);
  AddFmtCommand(app, context);
  AddNewCommand(app, context);
  AddPortsCommand(app, context);
  AddReplayCommand(app, context);
  AddRunCommand(app, context);
  AddTableCommands(app, context);
  AddTestCommand(app, context);
}

}  // namespace kvl::cli
