// `kvl replay`: a script runs offline over captured bytes. No line, no waiting.
#include "cli/replay.h"

#include <fmt/format.h>

#include <algorithm>

#include "cli/diagnostics.h"
#include "cli/script_file.h"
#include "cli/tags.h"
#include "script/KVL.h"
#include "script/decimal.h"

namespace kvl::cli {
namespace {

// The table of one replay, which no other process sees.
class CReplayTable {
 public:
  // Without a tag file there is no table.
  CReplayTable(const std::string& file, const CContext& context) {
    if (file.empty()) return;
    if (!m_owner.Create(ReadTagFile(file, context), false)) {
      throw CCommandError(kFailed, fmt::format("the tags of '{}' can't be laid: {}", file,
                                               ErrorText(m_owner.LastError())));
    }
  }
  ~CReplayTable() { CTableOwner::Remove(kName, kAudience); }
  CReplayTable(const CReplayTable&) = delete;
  CReplayTable& operator=(const CReplayTable&) = delete;

  CTableOwner& Owner() { return m_owner; }
  const char* Name() const { return m_owner.IsOpen() ? kName : ""; }

  static constexpr EAudience kAudience = EAudience::kThisProcess;

 private:
  static constexpr char kName[] = "replay";
  CTableOwner m_owner{kName, kAudience};
};

}  // namespace

int Replay(const CReplayOptions& options, const CContext& context, CReplayReport& report) {
  const std::string text = ReadScriptFile(options.m_script);
  if (!options.m_bNoCheck && !PassesVerification(options.m_script, text, context)) return kFailed;
  CReplayTable table(options.m_tags, context);
  CReplayOwner owner(report, table.Owner());
  CKVL engine(&owner, table.Name(), table.kAudience);
  engine._CompileMainScript1(engine.LoadText(text));
  engine.SetMaxSteps(options.m_nMaxSteps);
  int32_t result = engine.Commands().empty() ? -1 : 0;
  ForEachBatch(options.m_batches, [&](const CBatch& batch) {
    owner.NextPass();
    result = engine.Begin(batch.data(), static_cast<int32_t>(batch.size()));
    if (engine.LimitReached()) report.Limit(owner.Pass());
    if (options.m_batches.m_bRealTime) std::fflush(stdout);  // whoever looks on sees it at its time
  });
  std::vector<CTagImage> tags;
  table.Owner().List(tags);
  report.End(owner.Pass(), result, engine, tags);
  return kDone;
}

namespace {

// Decimal digits only, from 1 to `most`. Leading zeros mean nothing.
CLI::Validator WholeNumber(uint64_t most) {
  const auto check = [most](std::string& text) -> std::string {
    text.erase(0, std::min(text.find_first_not_of('0'), text.size()));
    const bool digits = std::ranges::all_of(text, IsDigit) && !text.empty() && text.size() < 20;
    if (digits && std::stoull(text) <= most) return {};
    return fmt::format("must be a whole number from 1 to {}", most);
  };
  return {check, ""};
}

}  // namespace

void AddReplayOptions(CLI::App& command, CReplayOptions& options) {
  CBatchOptions& batches = options.m_batches;
  const auto cut = [&batches](const std::string& /*value*/) { batches.m_bCut = true; };
  CLI::Option* chunk =
      command.add_option("--chunk", batches.m_nChunk, "Cut INPUT into batches of N bytes")
          ->transform(WholeNumber(size_t{1} << 30))
          ->type_name("N")
          ->capture_default_str()
          ->each(cut);
  CLI::Option* lines =
      command.add_flag("--lines", batches.m_bLines, "Cut INPUT behind each LF instead")
          ->excludes(chunk)
          ->each(cut);
  command
      .add_flag("--real-time", batches.m_bRealTime,
                "Replay a capture file at the pace at which it was made")
      ->excludes(chunk)
      ->excludes(lines);
  command
      .add_option("--batch", batches.m_batches,
                  "One batch, as hexadecimal; may be repeated; '' is an empty batch")
      ->type_name("HEX")
      ->expected(1)
      ->allow_extra_args(false)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  command.add_flag("--no-check", options.m_bNoCheck, "Skip verification");
  command.add_option("--tags", options.m_tags, "Lay the tags of FILE in a private table")
      ->check(NotEmpty())
      ->type_name("FILE");
  command.add_option("--max-steps", options.m_nMaxSteps, "End a pass after N instructions")
      ->transform(WholeNumber(1000000000000000000))
      ->type_name("N");
}

void AddReplayCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CReplayOptions>();
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand("replay", "Run a script offline over captured bytes");
  command->add_option("SCRIPT", options->m_script, "The script")->required();
  AddReplayOptions(*command, *options);
  command
      ->add_option("INPUT", options->m_batches.m_input, "File of raw bytes, - for standard input")
      ->check(NotEmpty())
      ->excludes("--batch");
  command->add_flag("--json", *json, "Print events as JSON, one object a line");
  command->callback([options, json, &context] {
    context.m_work = [options, json, &context] {
      return Replay(*options, context, *MakeReport(*json, context.m_color));
    };
  });
}

}  // namespace kvl::cli
