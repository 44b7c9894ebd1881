// Writes the manual pages and the completion scripts into the folder that its argument names; the
// build runs it.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "cli/commands.h"
#include "cli/reference.h"

namespace {

namespace fs = std::filesystem;

bool Write(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) fmt::print(stderr, "'{}' can't be written\n", path.string());
  return static_cast<bool>(file);
}

}  // namespace

int main(int argc, char** argv) try {
  if (argc != 2) {
    fmt::print(stderr, "usage: {} FOLDER\n", argv[0]);
    return 2;
  }
  const fs::path folder = argv[1];
  kvl::cli::CContext context;
  CLI::App app;
  kvl::cli::SetUpApp(app, context);
  const kvl::cli::CCommandFacts program = kvl::cli::FactsOf(app);
  bool done = Write(folder / "man" / "kvl.1", ManPage(program));
  for (const kvl::cli::CCommandFacts& command : program.m_commands) {
    const std::string name = fmt::format("{}.1", fmt::join(command.m_path, "-"));
    done = Write(folder / "man" / name, ManPage(command)) && done;
  }
  done = Write(folder / "bash" / "kvl", BashCompletion(program)) && done;
  done = Write(folder / "zsh" / "_kvl", ZshCompletion(program)) && done;
  return done ? 0 : 1;
} catch (const std::exception& error) {
  fmt::print(stderr, "{}\n", error.what());
  return 1;
}
