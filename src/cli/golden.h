// Golden tests of a script: captures beside the lines that replaying them must print.
//
// The cases of gauge.kvl are the files of the folder gauge.tests beside it; the files of one case
// share their name up to the last dot:
//   CASE.expected   what must come out
//   CASE.options    replay's options of this case, behind those of the file `options`
//   CASE.tags       the case's tag file; without it gauge.tags beside the script, if it is there
//   CASE.ANYTHING   the capture; without one the options say what comes in
// Hidden files and .md files are nobody's.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cli/replay.h"

namespace kvl::cli {

struct CGoldenCase {
  std::filesystem::path m_script;
  std::string m_name;
  std::filesystem::path m_stem;  // the case's folder and name, without a dot
  std::filesystem::path m_input;
  std::filesystem::path m_tags;  // both empty if there is none
};

// The cases of each path, a script or a folder that is searched for scripts with tests, in order
// of their names. Throws CCommandError for a path that is not there, or a case with two captures.
std::vector<CGoldenCase> FindGoldenCases(const std::vector<std::string>& paths);

// Replays a case. Returns the lines that come out: replay's events as JSON. Where the options say
// --events, those kinds alone; where they say --values, the chosen values at the end, and events
// only with --events. Throws CCommandError.
std::vector<std::string> ReplayGoldenCase(const CGoldenCase& golden, const CContext& context);

// The lines of a text, without their ends; none if the stream can't be read.
std::vector<std::string> LinesOf(std::istream& stream);

// The first line that differs; two JSON lines with the same content are alike.
struct CLineDifference {
  size_t m_nLine;  // from 1
  std::optional<std::string> m_expected;
  std::optional<std::string> m_actual;
};
std::optional<CLineDifference> FirstDifference(const std::vector<std::string>& expected,
                                               const std::vector<std::string>& actual);

// What differs in two JSON lines, as "path: expected -> actual"; nothing if one is no JSON.
std::vector<std::string> DescribeDifference(std::string_view expected, std::string_view actual);

}  // namespace kvl::cli
