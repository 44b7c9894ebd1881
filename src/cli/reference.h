// What the command line knows about itself, for manual pages and shell completion. All of it is
// read from the objects that print `--help`.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace kvl::cli {

struct COptionFacts {
  std::vector<std::string> m_names;   // -w, --write
  std::string m_argument;             // what follows it; empty for a flag
  std::vector<std::string> m_values;  // what the argument may be, if it is one of a few words
  std::string m_default;
  std::string m_description;
};

struct CPlaceFacts {
  std::string m_name;  // SCRIPT, TABLE, TAG ...: tells a shell what to offer
  std::string m_description;
  bool m_bRequired = false;
  bool m_bMany = false;
};

struct CCommandFacts {
  std::vector<std::string> m_path;  // kvl table create
  std::string m_description;
  std::string m_footer;
  std::vector<COptionFacts> m_options;
  std::vector<CPlaceFacts> m_places;
  std::vector<CCommandFacts> m_commands;
};

CCommandFacts FactsOf(const CLI::App& program);

// The manual page of the program, or of a command with those below it.
std::string ManPage(const CCommandFacts& command);

// Completion of the whole program.
std::string BashCompletion(const CCommandFacts& program);
std::string ZshCompletion(const CCommandFacts& program);

}  // namespace kvl::cli
