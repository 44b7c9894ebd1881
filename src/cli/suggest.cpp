#include "cli/suggest.h"

#include <fmt/format.h>

#include <algorithm>

namespace kvl::cli {
namespace {

// Letters added, dropped, changed or exchanged with their neighbour to get from one to the other.
size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> cost(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        cost[i][j] = i + j;
        continue;
      }
      const size_t change = a[i - 1] == b[j - 1] ? 0 : 1;
      cost[i][j] = std::min({cost[i - 1][j] + 1, cost[i][j - 1] + 1, cost[i - 1][j - 1] + change});
      const bool swapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (swapped) cost[i][j] = std::min(cost[i][j], cost[i - 2][j - 2] + 1);
    }
  }
  return cost[a.size()][b.size()];
}

std::vector<std::string> CommandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  return names;
}

// The options of a command and of those above it, which it takes too.
const CLI::Option* FindOption(const CLI::App* app, const std::string& name) {
  for (; app != nullptr; app = app->get_parent()) {
    if (const CLI::Option* option = app->get_option_no_throw(name)) return option;
  }
  return nullptr;
}

std::vector<std::string> OptionNames(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app != nullptr; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
    }
  }
  return names;
}

std::string Message(const char* kind, const std::string& typed,
                    const std::vector<std::string>& words) {
  const std::string nearest = NearestWord(typed, words);
  if (nearest.empty()) return fmt::format("there is no {} '{}'", kind, typed);
  return fmt::format("there is no {} '{}'; did you mean '{}'?", kind, typed, nearest);
}

}  // namespace

std::string NearestWord(const std::string& typed, const std::vector<std::string>& words) {
  constexpr size_t kLongest = 40;  // nobody mistypes a word of that length for one of ours
  if (typed.size() > kLongest) return "";
  std::string nearest;
  size_t least = std::min<size_t>(3, typed.size() / 2 + 1);  // so near it must be, less one
  for (const std::string& word : words) {
    const size_t distance = EditDistance(typed, word);
    if (distance >= least) continue;
    least = distance;
    nearest = word;
  }
  return nearest;
}

std::string UnknownWord(const CLI::App& program, std::span<const char* const> arguments) {
  const CLI::App* app = &program;
  for (size_t i = 0; i < arguments.size(); ++i) {
    const std::string word = arguments[i];
    if (word == "--") return "";
    if (word.size() > 1 && word.front() == '-') {
      const std::string name = word.substr(0, word.find('='));
      const CLI::Option* option = FindOption(app, name);
      if (option == nullptr && name.starts_with("--")) {
        return Message("option", name, OptionNames(app));
      }
      const bool takesNext = option != nullptr && option->get_items_expected_max() > 0;
      if (takesNext && name == word) ++i;
      continue;
    }
    const std::vector<std::string> commands = CommandNames(*app);
    if (commands.empty()) continue;
    if (std::ranges::find(commands, word) == commands.end()) {
      return Message("command", word, commands);
    }
    app = app->get_subcommand(word);
  }
  return "";
}

}  // namespace kvl::cli
