// `kvl test`: golden tests for the authors of scripts.
#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "cli/commands.h"
#include "cli/files.h"
#include "cli/golden.h"
#include "cli/output.h"

namespace kvl::cli {
namespace {

namespace fs = std::filesystem;

constexpr size_t kContext = 2;     // lines in front of a difference
constexpr size_t kMaxShown = 160;  // bytes of a line
constexpr size_t kMaxDetails = 8;  // fields of a difference

struct CTestOptions {
  std::vector<std::string> m_paths = {"."};
  bool m_bUpdate = false;
  bool m_bJson = false;
};

enum class EResult { Passed, Updated, Failed };

struct COutcome {
  EResult m_result = EResult::Passed;
  std::string m_message;  // why it failed, without a difference
  std::optional<CLineDifference> m_difference;
  std::vector<std::string> m_context;
};

COutcome RunCase(const CGoldenCase& golden, const CContext& context, bool update) try {
  const std::vector<std::string> actual = ReplayGoldenCase(golden, context);
  const fs::path path = fs::path(golden.m_stem) += ".expected";
  std::ifstream file(path, std::ios::binary);
  const bool exists = file.is_open();
  const std::vector<std::string> expected = LinesOf(file);
  COutcome outcome;
  outcome.m_difference = FirstDifference(expected, actual);
  if (exists && !outcome.m_difference) return outcome;
  if (update) {
    ReplaceFile(path.string(), fmt::format("{}\n", fmt::join(actual, "\n")));
    outcome.m_result = EResult::Updated;
    return outcome;
  }
  outcome.m_result = EResult::Failed;
  if (!exists) {
    outcome.m_difference.reset();
    outcome.m_message =
        "nothing is expected yet; look at it with kvl replay, accept it with --update";
    return outcome;
  }
  const size_t line = outcome.m_difference->m_nLine - 1;
  for (size_t i = line - std::min(line, kContext); i < line; ++i) {
    outcome.m_context.push_back(actual[i]);
  }
  return outcome;
} catch (const CCommandError& error) {
  return {EResult::Failed, error.what(), {}, {}};
}

std::string Shortened(const std::string& line) {
  if (line.size() <= kMaxShown) return line;
  size_t end = kMaxShown;
  while ((line[end] & 0xC0) == 0x80) --end;  // not within a character
  return line.substr(0, end) + "...";
}

void PrintDifference(const COutcome& outcome, const CPainter& painter) {
  for (const std::string& line : outcome.m_context) {
    fmt::print("      {}\n", painter.Paint(EColor::Dim, Shortened(line)));
  }
  const CLineDifference& difference = *outcome.m_difference;
  const std::string end = "(no line)";
  const std::string expected = Shortened(difference.m_expected.value_or(end));
  const std::string actual = Shortened(difference.m_actual.value_or(end));
  fmt::print("    {}\n", painter.Paint(EColor::Red, "- " + expected));
  fmt::print("    {}\n", painter.Paint(EColor::Green, "+ " + actual));
  if (!difference.m_expected || !difference.m_actual) return;
  const auto details = DescribeDifference(*difference.m_expected, *difference.m_actual);
  for (size_t i = 0; i < std::min(details.size(), kMaxDetails); ++i) {
    fmt::print("      {}\n", Shortened(details[i]));
  }
  if (details.size() > kMaxDetails) {
    fmt::print("      and {} more\n", details.size() - kMaxDetails);
  }
}

void PrintOutcome(const CGoldenCase& golden, const COutcome& outcome, const CPainter& painter) {
  const std::string name = golden.m_stem.string();
  switch (outcome.m_result) {
    case EResult::Passed:
      fmt::print("{}    {}\n", painter.Paint(EColor::Green, "ok"), name);
      return;
    case EResult::Updated:
      fmt::print("{}  {}\n", painter.Paint(EColor::Cyan, "new"), name);
      return;
    case EResult::Failed:
      break;
  }
  const std::string failed = painter.Paint(EColor::Red, "FAIL");
  if (!outcome.m_difference) {
    fmt::print("{}  {}: {}\n", failed, name, outcome.m_message);
    return;
  }
  fmt::print("{}  {}: line {} is not as expected\n", failed, name, outcome.m_difference->m_nLine);
  PrintDifference(outcome, painter);
}

void PrintOutcomeAsJson(const CGoldenCase& golden, const COutcome& outcome) {
  constexpr const char* kNames[] = {"passed", "updated", "failed"};
  CJson object = {{"script", golden.m_script.string()},
                  {"case", golden.m_name},
                  {"result", kNames[static_cast<int>(outcome.m_result)]}};
  if (!outcome.m_message.empty()) object["message"] = outcome.m_message;
  if (outcome.m_result == EResult::Failed && outcome.m_difference) {
    const CLineDifference& difference = *outcome.m_difference;
    const auto line = [](const std::optional<std::string>& text) {
      return text ? CJson(*text) : CJson();
    };
    object["line"] = difference.m_nLine;
    object["expected"] = line(difference.m_expected);
    object["actual"] = line(difference.m_actual);
  }
  PrintJson(object);
}

int Test(const CTestOptions& options, const CContext& context) {
  const std::vector<CGoldenCase> cases = FindGoldenCases(options.m_paths);
  if (cases.empty()) {
    throw CCommandError(kFailed,
                        "no tests found: the tests of gauge.kvl are the files of the "
                        "folder gauge.tests beside it; see kvl test --help");
  }
  const CPainter painter(context.m_color, EPrintStream::kOutput);
  size_t counts[3] = {};
  for (const CGoldenCase& golden : cases) {
    const COutcome outcome = RunCase(golden, context, options.m_bUpdate);
    ++counts[static_cast<int>(outcome.m_result)];
    options.m_bJson ? PrintOutcomeAsJson(golden, outcome) : PrintOutcome(golden, outcome, painter);
  }
  const auto [passed, updated, failed] = counts;
  if (options.m_bJson) {
    PrintJson({{"passed", passed}, {"updated", updated}, {"failed", failed}});
  } else {
    const std::string news = updated == 0 ? "" : fmt::format(", {} updated", updated);
    fmt::print("{} passed{}, {} failed\n", passed, news, failed);
  }
  return failed == 0 ? kDone : kFailed;
}

}  // namespace

void AddTestCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CTestOptions>();
  CLI::App* command =
      app.add_subcommand("test", "Replay captures and compare with what is expected");
  command->footer(
      "The tests of gauge.kvl are the files of the folder gauge.tests beside it. Files that share "
      "their name up to the last dot are one case:\n"
      "  CASE.expected   the lines that must come out; written by --update\n"
      "  CASE.options    options of kvl replay, behind those in the file `options`\n"
      "  CASE.tags       the tag file; without it gauge.tags beside the script\n"
      "  CASE.ANYTHING   the capture\n"
      "What comes out are the events of kvl replay --json. With --values NAME,NAME in its options "
      "a case shows the values of those tags, or variables, at the end instead; with --events "
      "put,out events of those kinds, ahead of the values. A pass ends after 10,000,000 "
      "instructions unless --max-steps says otherwise.");
  command->add_option("PATH", options->m_paths, "Scripts, or folders to search for scripts")
      ->type_name("");
  command->add_flag("--update", options->m_bUpdate, "Accept what comes out as what is expected");
  command->add_flag("--json", options->m_bJson, "Print one JSON object a case");
  command->callback([options, &context] {
    context.m_work = [options, &context] { return Test(*options, context); };
  });
}

}  // namespace kvl::cli
