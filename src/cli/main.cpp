// The command `kvl`: reads the command line and runs the subcommand that it names.
#include <fmt/format.h>

#include <cstdio>

#include "cli/commands.h"
#include "cli/output.h"

namespace {

using namespace kvl::cli;

int Run(int argc, char** argv) {
  CContext context;
  CLI::App app;
  SetUpApp(app, context);
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
