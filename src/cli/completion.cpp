// Completion scripts: tables made from the command line, and what each shell makes of them. The
// name of a place says what to offer there: SCRIPT, FILE, INPUT, PATH and DIR are files,
// NAME=DEVICE is one of `kvl ports`, TABLE one of `kvl table list`, TAG a tag of the table in front
// of it; other names are the user's to fill.
#include <fmt/format.h>

#include <algorithm>

#include "cli/reference.h"

namespace kvl::cli {
namespace {

std::string SingleQuoted(std::string_view text) {
  std::string quoted = "'";
  for (const char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

// "table create" for kvl table create, "" for the program.
std::string KeyOf(const CCommandFacts& command) {
  return fmt::format("{}", fmt::join(command.m_path.begin() + 1, command.m_path.end(), " "));
}

// The command's options, and those of the program that it does not name itself.
std::vector<COptionFacts> OptionsOf(const CCommandFacts& command, const CCommandFacts& program) {
  std::vector<COptionFacts> options = command.m_options;
  for (const COptionFacts& option : program.m_options) {
    const auto isSame = [&](const COptionFacts& own) { return own.m_names == option.m_names; };
    if (std::ranges::none_of(command.m_options, isSame)) options.push_back(option);
  }
  return options;
}

constexpr char kBash[] = R"BASH(
# The lines that begin with $1. No shell expands them, whatever a tag may be called.
_kvl_only() {
  local line
  while IFS= read -r line; do [[ $line == "$1"* ]] && printf '%s\n' "$line"; done
}

# Field $1 of every object that the command behind it prints.
_kvl_field() { "${@:2}" --json 2>/dev/null | sed -n 's/.*"'"$1"'":"\([^"]*\)".*/\1/p'; }

# The words of kind $1 that begin with $2; $3 is the first word behind the command, a TAG's table.
_kvl_offer() {
  case $1 in
    SCRIPT) compgen -f -X '!*.kvl' -- "$2"; compgen -d -- "$2" ;;
    FILE|INPUT|PATH|DIR) compgen -f -- "$2" ;;
    NAME=DEVICE) _kvl_field name kvl ports | sed 's/$/=/' | _kvl_only "$2" ;;
    TABLE) _kvl_field table kvl table list | _kvl_only "$2" ;;
    TAG) _kvl_field tag kvl table show "$3" | _kvl_only "$2" ;;
    [A-Z]*) ;;
    *) compgen -W "$1" -- "$2" ;;
  esac
}

_kvl() {
  local word=${COMP_WORDS[COMP_CWORD]} key= kind= i
  local commands options places
  local -a given=()
  _kvl_command "$key"
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == -?* ]]; then
      kind=$(_kvl_argument "$key" "${COMP_WORDS[i]}") && ((++i))
    elif [[ " $commands " == *" ${COMP_WORDS[i]} "* ]]; then
      key="${key:+$key }${COMP_WORDS[i]}"
      _kvl_command "$key"
    else
      given+=("${COMP_WORDS[i]}")
    fi
  done
  if [[ ${COMP_WORDS[COMP_CWORD - 1]} == "=" || $word == "=" ]]; then  # --port COM1=
    word=${word#=}
    mapfile -t COMPREPLY < <(_kvl_field device kvl ports | _kvl_only "$word"; compgen -f -- "$word")
  elif ((i > COMP_CWORD)); then  # the word belongs to the option in front of it
    [[ $kind == NAME=* ]] && compopt -o nospace 2>/dev/null
    mapfile -t COMPREPLY < <(_kvl_offer "$kind" "$word" "${given[0]}")
  elif [[ $word == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  elif [[ $commands ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$word")
  else
    local -a kinds=($places)
    i=${#given[@]}
    ((i < ${#kinds[@]})) || i=$((${#kinds[@]} - 1))
    ((i < 0)) && return
    kind=${kinds[i]}
    [[ $kind == *... || ${#given[@]} == "$i" ]] || return
    mapfile -t COMPREPLY < <(_kvl_offer "${kind%...}" "$word" "${given[0]}")
  fi
}
complete -o filenames -F _kvl kvl
)BASH";

std::string JoinedNames(const std::vector<COptionFacts>& options) {
  std::string names;
  for (const COptionFacts& option : options) {
    names += fmt::format("{}{}", names.empty() ? "" : " ", fmt::join(option.m_names, " "));
  }
  return names;
}

// Rows of _kvl_command and of _kvl_argument for a command and those below it.
void AddBashRows(const CCommandFacts& command, const CCommandFacts& program, std::string& commands,
                 std::string& arguments) {
  std::string names;
  for (const CCommandFacts& below : command.m_commands) names += below.m_path.back() + ' ';
  std::string places;
  for (const CPlaceFacts& place : command.m_places) {
    places += place.m_name + (place.m_bMany ? "... " : " ");
  }
  const std::string options = JoinedNames(OptionsOf(command, program));
  const bool isProgram = &command == &program;
  commands +=
      fmt::format("    {}) commands={} options={} places={} ;;\n", SingleQuoted(KeyOf(command)),
                  SingleQuoted(names), SingleQuoted(options), SingleQuoted(places));
  for (const COptionFacts& option : command.m_options) {
    if (option.m_argument.empty()) continue;
    const std::string words = fmt::format("{}", fmt::join(option.m_values, " "));
    for (const std::string& name : option.m_names) {
      const std::string key =
          isProgram ? "*' " + name + "'" : SingleQuoted(KeyOf(command) + ' ' + name);
      arguments += fmt::format("    {}) echo {} ;;\n", key,
                               SingleQuoted(words.empty() ? option.m_argument : words));
    }
  }
  for (const CCommandFacts& below : command.m_commands) {
    AddBashRows(below, program, commands, arguments);
  }
}

constexpr char kZsh[] = R"ZSH(
__kvl_scripts() { _files -g '*.kvl(-.)' }
# Field $1 of every object that the command behind it prints.
__kvl_field() { "${@[2,-1]}" --json 2>/dev/null | sed -n 's/.*"'$1'":"\([^"]*\)".*/\1/p' }
__kvl_port_fields() {
  local -a fields=(${(f)"$(__kvl_field $1 kvl ports)"})
  compadd "${@[2,-1]}" -a fields
}
__kvl_ports() {
  if compset -P '*='; then
    __kvl_port_fields device
    _files
  else
    __kvl_port_fields name -S =
  fi
}
__kvl_tables() {
  local -a tables=(${(f)"$(__kvl_field table kvl table list)"})
  compadd -a tables
}
__kvl_tags() {
  local table=${${(@)words[2,-1]:#-*}[1]}
  local -a tags=(${(f)"$(__kvl_field tag kvl table show "$table")"})
  compadd -a tags
}
)ZSH";

// Text between the brackets or colons of an _arguments entry.
std::string ZshText(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '[' || c == ']' || c == ':' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string ZshAction(const std::string& kind) {
  if (kind == "SCRIPT") return "__kvl_scripts";
  if (kind == "NAME=DEVICE") return "__kvl_ports";
  if (kind == "TABLE") return "__kvl_tables";
  if (kind == "TAG") return "__kvl_tags";
  const bool isFile = kind == "FILE" || kind == "INPUT" || kind == "PATH" || kind == "DIR";
  return isFile ? "_files" : " ";
}

void AddZshOptions(const std::vector<COptionFacts>& options, std::string& specifications) {
  for (const COptionFacts& option : options) {
    std::string argument;
    if (!option.m_argument.empty()) {
      const std::string values = fmt::format("{}", fmt::join(option.m_values, " "));
      const std::string action = values.empty() ? ZshAction(option.m_argument) : "(" + values + ")";
      argument = fmt::format(":{}:{}", ZshText(option.m_argument), action);
    }
    for (const std::string& name : option.m_names) {
      const std::string text =
          fmt::format("*{}[{}]{}", name, ZshText(option.m_description), argument);
      specifications += " \\\n    " + SingleQuoted(text);
    }
  }
}

// One function a command, those below it in front.
void AddZshFunctions(const CCommandFacts& command, const CCommandFacts& program,
                     std::string& functions) {
  const std::string name = fmt::format("_{}", fmt::join(command.m_path, "_"));
  std::string specifications;
  AddZshOptions(OptionsOf(command, program), specifications);
  for (const CPlaceFacts& place : command.m_places) {
    const std::string text = fmt::format("{}:{}:{}", place.m_bMany ? "*" : "",
                                         ZshText(place.m_name), ZshAction(place.m_name));
    specifications += " \\\n    " + SingleQuoted(text);
  }
  if (command.m_commands.empty()) {
    functions += fmt::format("{}() {{\n  _arguments{}\n}}\n", name, specifications);
    return;
  }
  std::string words;
  std::string cases;
  for (const CCommandFacts& below : command.m_commands) {
    AddZshFunctions(below, program, functions);
    const std::string& word = below.m_path.back();
    words += fmt::format("\n    {}", SingleQuoted(word + ':' + ZshText(below.m_description)));
    cases += fmt::format("        {}) {}_{} ;;\n", word, name, word);
  }
  functions += fmt::format(
      "{}() {{\n"
      "  local curcontext=$curcontext state line\n"
      "  local -a commands=({}\n  )\n"
      "  _arguments -C{} \\\n    '1: :->command' '*:: :->rest'\n"
      "  case $state in\n"
      "    command) _describe command commands ;;\n"
      "    rest)\n"
      "      case $words[1] in\n{}      esac ;;\n"
      "  esac\n}}\n",
      name, words, specifications, cases);
}

}  // namespace

std::string BashCompletion(const CCommandFacts& program) {
  std::string commands;
  std::string arguments;
  AddBashRows(program, program, commands, arguments);
  return fmt::format(
      "# Completion of kvl for bash.\n\n"
      "# What may stand behind the command $1.\n"
      "_kvl_command() {{\n  case $1 in\n{}    *) commands= options= places= ;;\n  esac\n}}\n\n"
      "# What follows the option $2 of the command $1; false if nothing does.\n"
      "_kvl_argument() {{\n  case \"$1 $2\" in\n{}    *) return 1 ;;\n  esac\n}}\n{}",
      commands, arguments, kBash);
}

std::string ZshCompletion(const CCommandFacts& program) {
  std::string functions;
  AddZshFunctions(program, program, functions);
  return fmt::format("#compdef kvl\n# Completion of kvl for zsh.\n{}\n{}\n_kvl \"$@\"\n", kZsh,
                     functions);
}

}  // namespace kvl::cli
