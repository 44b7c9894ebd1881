#include "cli/reference.h"

#include <sstream>

namespace kvl::cli {
namespace {

bool IsShown(const CLI::Option* option) {
  return !option->get_group().empty();
}

// CLI11 tells the words of a choice as part of the type's name: TEXT:{auto,always,never}.
std::vector<std::string> ValuesIn(const std::string& type) {
  const size_t open = type.find('{');
  const size_t close = type.find('}');
  std::vector<std::string> values;
  if (open == type.npos || close == type.npos) return values;
  std::istringstream words(type.substr(open + 1, close - open - 1));
  for (std::string word; std::getline(words, word, ',');) values.push_back(word);
  return values;
}

COptionFacts FactsOf(const CLI::Option& option) {
  COptionFacts facts;
  for (const std::string& name : option.get_snames()) facts.m_names.push_back("-" + name);
  for (const std::string& name : option.get_lnames()) facts.m_names.push_back("--" + name);
  facts.m_description = option.get_description();
  if (option.get_items_expected_max() == 0) return facts;
  const std::string type = option.get_type_name();
  facts.m_argument = type.substr(0, type.find(':'));
  facts.m_values = ValuesIn(type);
  facts.m_default = option.get_default_str();
  return facts;
}

CCommandFacts FactsOf(const CLI::App& app, std::vector<std::string> path) {
  CCommandFacts facts;
  path.push_back(app.get_name());
  facts.m_path = std::move(path);
  facts.m_description = app.get_description();
  facts.m_footer = app.get_footer();
  for (const CLI::Option* option : app.get_options(IsShown)) {
    if (option->get_positional()) {
      facts.m_places.push_back({option->get_name(true), option->get_description(),
                                option->get_required(), option->get_items_expected_max() > 1});
    } else {
      facts.m_options.push_back(FactsOf(*option));
    }
  }
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    facts.m_commands.push_back(FactsOf(*command, facts.m_path));
  }
  return facts;
}

}  // namespace

CCommandFacts FactsOf(const CLI::App& program) {
  return FactsOf(program, {});
}

}  // namespace kvl::cli
