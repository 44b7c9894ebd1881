#include "cli/golden.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>

#include "cli/tags.h"
#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

namespace fs = std::filesystem;

// An endless loop in a script must fail its test, not hang it.
constexpr int64_t kMaxTestSteps = 10'000'000;

// What --events chooses from. That a pass reached its limit is always told.
const std::vector<std::string> kEvents = {"out", "print", "put", "sync", "sleep", "end"};

fs::path TestsOf(const fs::path& script) {
  return fs::path(script).replace_extension(".tests");
}

void AddFile(const fs::path& file, CGoldenCase& golden) {
  const fs::path extension = file.extension();
  if (extension == ".expected" || extension == ".options") return;
  if (extension == ".tags") {
    golden.m_tags = file;
  } else if (golden.m_input.empty()) {
    golden.m_input = file;
  } else {
    throw CCommandError(kFailed, fmt::format("'{}' and '{}' are captures of one case; give one of "
                                             "them another name",
                                             golden.m_input.string(), file.string()));
  }
}

void AddCases(const fs::path& script, std::vector<CGoldenCase>& cases) {
  const fs::path commonTags = fs::path(script).replace_extension(".tags");
  std::map<std::string, CGoldenCase> byName;
  for (const fs::directory_entry& entry : fs::directory_iterator(TestsOf(script))) {
    const fs::path& file = entry.path();
    const bool nobodys = file.filename().string().starts_with('.') || file.extension() == ".md";
    if (!entry.is_regular_file() || nobodys || file.filename() == "options") continue;
    CGoldenCase& golden = byName[file.stem().string()];
    golden.m_stem = file.parent_path() / file.stem();
    AddFile(file, golden);
  }
  for (auto& [name, golden] : byName) {
    golden.m_script = script;
    golden.m_name = name;
    if (golden.m_tags.empty() && fs::exists(commonTags)) golden.m_tags = commonTags;
    cases.push_back(std::move(golden));
  }
}

// Options as on a command line, in their order; a text in double quotes is one word, be it empty. A
// line that begins with # is a comment.
void AddOptions(const fs::path& path, std::vector<std::string>& words) {
  std::ifstream file(path, std::ios::binary);
  for (const std::string& line : LinesOf(file)) {
    if (line.starts_with('#')) continue;
    std::istringstream rest(line);
    for (std::string word; rest >> std::quoted(word);) words.push_back(word);
  }
}

// A value as the JSON that a person would write for it.
CJson ValueOf(const std::string& kind, const std::string& type, std::span<const uint8_t> bytes) {
  const bool isScalar = kind == "VAR";
  if (type == "$" && isScalar) return static_cast<int8_t>(bytes[0]);
  if (type == "$") {
    const std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return Utf8FromCp949(all.substr(0, all.find('\0')));
  }
  CJson elements = CJson::array();
  const size_t size = type == "%" ? sizeof(int32_t) : sizeof(double);
  for (size_t i = 0; i + size <= bytes.size(); i += size) {
    if (type == "%") {
      elements.push_back(Load<int32_t>(&bytes[i]));
    } else {
      elements.push_back(Load<double>(&bytes[i]));
    }
  }
  return isScalar ? elements[0] : elements;
}

// The value of a tag, or else of a variable, in the last event of a replay. Of two variables with
// one name the first counts.
std::string ValueLine(const CJson& end, const std::string& name) {
  for (const char* list : {"tags", "variables"}) {
    const bool isTag = list == std::string_view("tags");
    for (const CJson& entry : end[list]) {
      if (entry["name"] != name) continue;
      std::vector<uint8_t> bytes;
      FromHex(entry["hex"].get<std::string>(), bytes);
      const CJson value = isTag ? ValueJson({name, entry["type"].get<uint8_t>(), bytes})
                                : ValueOf(entry["kind"], entry["type"], bytes);
      return JsonLine({{isTag ? "tag" : "variable", name}, {"value", value}});
    }
  }
  throw CCommandError(kFailed, fmt::format("--values {}: no tag or variable has that name", name));
}

void Describe(const CJson& expected, const CJson& actual, const std::string& path,
              std::vector<std::string>& differences) {
  if (expected == actual) return;
  const bool both =
      (expected.is_object() && actual.is_object()) || (expected.is_array() && actual.is_array());
  if (!both || expected.size() != actual.size()) {
    differences.push_back(fmt::format("{}: {} -> {}", path, JsonLine(expected), JsonLine(actual)));
    return;
  }
  for (const auto& [key, value] : expected.items()) {
    if (expected.is_array()) {
      const size_t i = std::stoul(key);
      const CJson* name = value.is_object() && value.contains("name") ? &value["name"] : nullptr;
      const std::string label =
          name != nullptr && name->is_string() ? name->get<std::string>() : key;
      Describe(value, actual[i], fmt::format("{}[{}]", path, label), differences);
    } else {
      const CJson other = actual.contains(key) ? actual[key] : CJson();
      Describe(value, other, path.empty() ? key : fmt::format("{}.{}", path, key), differences);
    }
  }
}

CJson Parse(std::string_view line) {
  return CJson::parse(line, nullptr, false);
}

bool Alike(const std::string& expected, const std::string& actual) {
  if (expected == actual) return true;
  const auto a = nlohmann::json::parse(expected, nullptr, false);
  const auto b = nlohmann::json::parse(actual, nullptr, false);
  return !a.is_discarded() && a == b;
}

}  // namespace

std::vector<CGoldenCase> FindGoldenCases(const std::vector<std::string>& paths) {
  std::vector<fs::path> scripts;
  for (const std::string& path : paths) {
    if (fs::is_regular_file(path)) {
      scripts.emplace_back(path);
    } else if (fs::is_directory(path)) {
      constexpr auto kOptions = fs::directory_options::skip_permission_denied;
      for (const auto& entry : fs::recursive_directory_iterator(path, kOptions)) {
        if (entry.path().extension() == ".kvl") scripts.push_back(entry.path());
      }
    } else {
      throw CCommandError(kUsage, fmt::format("'{}' is neither a script nor a folder", path));
    }
  }
  std::ranges::sort(scripts);
  scripts.erase(std::unique(scripts.begin(), scripts.end()), scripts.end());
  std::vector<CGoldenCase> cases;
  for (const fs::path& script : scripts) {
    if (fs::is_directory(TestsOf(script))) AddCases(script.lexically_normal(), cases);
  }
  return cases;
}

std::vector<std::string> ReplayGoldenCase(const CGoldenCase& golden, const CContext& context) {
  CReplayOptions options;
  options.m_script = golden.m_script.string();
  options.m_batches.m_input = golden.m_input.string();
  options.m_tags = golden.m_tags.string();
  options.m_nMaxSteps = kMaxTestSteps;
  std::vector<std::string> events;
  std::vector<std::string> values;
  CLI::App line;
  line.set_help_flag();
  AddReplayOptions(line, options);
  const auto addList = [&line](const char* name, std::vector<std::string>& list) {
    return line.add_option(name, list)->delimiter(',')->expected(1)->take_all();
  };
  addList("--events", events)->check(CLI::IsMember(kEvents));
  addList("--values", values);
  std::vector<std::string> words;
  AddOptions(golden.m_stem.parent_path() / "options", words);
  AddOptions(fs::path(golden.m_stem) += ".options", words);
  std::ranges::reverse(words);  // as the parser takes them
  try {
    line.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    throw CCommandError(kFailed, fmt::format("in the case's options: {}", error.what()));
  }
  if (!options.m_batches.m_batches.empty() && !golden.m_input.empty()) {
    throw CCommandError(kFailed, "in the case's options: --batch, though there is a capture");
  }
  std::vector<std::string> lines;
  const auto report = MakeJsonReport([&](const CJson& event) {
    const std::string& kind = event["event"].get_ref<const std::string&>();
    const bool isChosen = events.empty() ? values.empty() : std::ranges::count(events, kind) > 0;
    if (isChosen || kind == "limit") lines.push_back(JsonLine(event));
    if (kind != "end") return;
    for (const std::string& name : values) lines.push_back(ValueLine(event, name));
  });
  if (Replay(options, context, *report) != kDone)
    throw CCommandError(kFailed, "the script has faults");
  return lines;
}

std::vector<std::string> LinesOf(std::istream& stream) {
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line); lines.push_back(line)) {
    if (line.ends_with('\r')) line.pop_back();
  }
  return lines;
}

std::optional<CLineDifference> FirstDifference(const std::vector<std::string>& expected,
                                               const std::vector<std::string>& actual) {
  for (size_t i = 0; i < std::max(expected.size(), actual.size()); ++i) {
    CLineDifference difference{i + 1, {}, {}};
    if (i < expected.size()) difference.m_expected = expected[i];
    if (i < actual.size()) difference.m_actual = actual[i];
    const bool both = difference.m_expected && difference.m_actual;
    if (!both || !Alike(expected[i], actual[i])) return difference;
  }
  return std::nullopt;
}

std::vector<std::string> DescribeDifference(std::string_view expected, std::string_view actual) {
  std::vector<std::string> differences;
  const CJson a = Parse(expected);
  const CJson b = Parse(actual);
  if (a.is_object() && b.is_object()) Describe(a, b, "", differences);
  return differences;
}

}  // namespace kvl::cli
