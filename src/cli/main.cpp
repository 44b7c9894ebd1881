// The command `kvl`: reads the command line and runs the subcommand that it names.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <span>
#include <string>
#include <string_view>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/suggest.h"

namespace {

using namespace kvl::cli;

// Where this fails there is nobody left to tell.
void WriteError(const std::string& text) {
  kvl::COutputFile(kvl::EPrintStream::kError).Write(text);
}

void PrintError(const CContext& context, std::string_view message) {
  const CPainter painter(context.m_color, kvl::EPrintStream::kError);
  WriteError(fmt::format("kvl: {} {}\n", painter.Paint(EColor::Red, "error:"), message));
}

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
    const std::span<const char* const> arguments(argv + std::min(1, argc), argv + argc);
    const std::string unknown = error.get_exit_code() == 0 ? "" : UnknownWord(app, arguments);
    if (unknown.empty()) {
      if (app.exit(error) != 0) return kUsage;
      if (std::cout.flush()) return kDone;
      PrintError(context, kOutputFails);
      return kFailed;
    }
    PrintError(context, unknown + "\nRun with --help for more information.");
    return kUsage;
  } catch (const CCommandError& error) {
    std::fflush(stdout);
    PrintError(context, error.what());
    return error.Exit();
  }
}

}  // namespace

int main(int argc, char** argv) try {
  kvl::HoldMissingStreams();
  return Run(argc, argv);
} catch (const std::exception& error) {
  WriteError(fmt::format("kvl: error: {}\n", error.what()));
  return kFailed;
}
