// The command `kvl`: reads the command line and runs the subcommand that it names.
#include <fmt/format.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/output.h"
#include "version.h"

namespace {

using namespace kvl::cli;

int Run(int argc, char** argv) {
  CContext context;
  CLI::App app("kvl turns the bytes of serial and TCP device lines into named live values.", "kvl");
  app.set_version_flag("--version", "kvl " KVL_VERSION);
  app.add_option("--color", context.m_color, "When to use colour")
      ->check(CLI::IsMember({"auto", "always", "never"}))
      ->capture_default_str();
  app.require_subcommand(1);
  app.fallthrough();
  AddPortsCommand(app, context);
  AddReplayCommand(app, context);
  try {
    app.parse(argc, argv);
    const int exit = context.m_work();
    FlushOutput();
    return exit;
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kDone : kUsage;
  } catch (const CCommandError& error) {
    std::fflush(stdout);
    const CPainter painter(context.m_color, CPainter::EStream::Error);
    fmt::print(stderr, "kvl: {} {}\n", painter.Paint(EColor::Red, "error:"), error.what());
    return error.Exit();
  }
}

}  // namespace

int main(int argc, char** argv) try {
  return Run(argc, argv);
} catch (const std::exception& error) {
  fmt::print(stderr, "kvl: error: {}\n", error.what());
  return kFailed;
}
