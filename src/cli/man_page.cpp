#include <fmt/format.h>

#include <algorithm>
#include <sstream>

#include "cli/reference.h"
#include "version.h"

namespace kvl::cli {
namespace {

// Text as roff takes it literally.
std::string Roff(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\\') {
      escaped += "\\e";
    } else if (c == '-') {
      escaped += "\\-";
    } else {
      escaped += c;
    }
  }
  const bool isRequest = escaped.starts_with('.') || escaped.starts_with('\'');
  return isRequest ? "\\&" + escaped : escaped;
}

// Lines that begin with a blank are a table; the others flow.
std::string Paragraphs(const std::string& text) {
  std::string page;
  std::istringstream lines(text);
  bool table = false;
  for (std::string line; std::getline(lines, line);) {
    const bool row = line.starts_with(' ');
    if (row != table) page += row ? ".nf\n" : ".fi\n.PP\n";
    table = row;
    page += Roff(line) + '\n';
  }
  return table ? page + ".fi\n" : page;
}

std::string Synopsis(const CCommandFacts& command) {
  std::string line =
      fmt::format(".B {}\n", Roff(fmt::format("{}", fmt::join(command.m_path, " "))));
  std::string words = "[OPTIONS]";
  for (const CPlaceFacts& place : command.m_places) {
    const std::string name = place.m_name + (place.m_bMany ? "..." : "");
    words += place.m_bRequired ? " " + name : " [" + name + "]";
  }
  if (!command.m_commands.empty()) words += " COMMAND ...";
  return line + Roff(words) + "\n.br\n";
}

std::string Entry(const std::string& head, const std::string& text) {
  return fmt::format(".TP\n{}\n{}\n", head, Roff(text.empty() ? " " : text));
}

std::string Entries(const CCommandFacts& command) {
  std::string page;
  for (const CPlaceFacts& place : command.m_places) {
    page += Entry(fmt::format("\\fI{}\\fR", Roff(place.m_name)), place.m_description);
  }
  for (const COptionFacts& option : command.m_options) {
    std::string head;
    for (const std::string& name : option.m_names) {
      head += fmt::format("{}\\fB{}\\fR", head.empty() ? "" : ", ", Roff(name));
    }
    const std::string values = fmt::format("{}", fmt::join(option.m_values, "|"));
    const std::string& argument = values.empty() ? option.m_argument : values;
    if (!argument.empty()) head += fmt::format(" \\fI{}\\fR", Roff(argument));
    std::string text = option.m_description;
    if (!option.m_default.empty()) text += fmt::format(" (default: {})", option.m_default);
    page += Entry(head, text);
  }
  return page;
}

std::string Dashed(const CCommandFacts& command) {
  return fmt::format("{}", fmt::join(command.m_path, "-"));
}

// A command below the page's own.
std::string Section(const CCommandFacts& command) {
  std::string page = fmt::format(".SS {}\n{}.PP\n{}\n", Roff(command.m_path.back()),
                                 Synopsis(command), Roff(command.m_description));
  page += Entries(command);
  if (!command.m_footer.empty()) page += ".PP\n" + Paragraphs(command.m_footer);
  for (const CCommandFacts& below : command.m_commands) page += Section(below);
  return page;
}

}  // namespace

std::string ManPage(const CCommandFacts& command) {
  std::string title = Dashed(command);
  std::ranges::transform(title, title.begin(),
                         [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  std::string page = fmt::format(".TH {} 1 \"\" \"kvl " KVL_VERSION "\" \"kvl\"\n", Roff(title));
  page += fmt::format(".SH NAME\n{} \\- {}\n", Roff(Dashed(command)), Roff(command.m_description));
  page += ".SH SYNOPSIS\n" + Synopsis(command);
  page += ".SH OPTIONS\n" + Entries(command);
  if (!command.m_footer.empty()) page += ".SH DESCRIPTION\n" + Paragraphs(command.m_footer);
  if (!command.m_commands.empty()) page += ".SH COMMANDS\n";
  const bool isProgram = command.m_path.size() == 1;
  for (const CCommandFacts& below : command.m_commands) {
    page += isProgram
                ? Entry(fmt::format("\\fB{}\\fR(1)", Roff(Dashed(below))), below.m_description)
                : Section(below);
  }
  page += ".SH EXIT STATUS\n" + Entry("0", "Done.") +
          Entry("1", "The work failed, or the script has faults.") +
          Entry("2", "The command line is wrong, or a named file can't be read.");
  if (!isProgram) page += ".SH SEE ALSO\n.BR kvl (1),\nwhose options every command takes.\n";
  return page;
}

}  // namespace kvl::cli
