// `kvl replay`: a script runs offline over captured bytes. No line, no waiting.
#include <fmt/format.h>

#include "cli/batches.h"
#include "cli/commands.h"
#include "cli/diagnostics.h"
#include "cli/output.h"
#include "cli/replay_owner.h"
#include "cli/script_file.h"
#include "script/KVL.h"

namespace kvl::cli {
namespace {

struct CReplayOptions {
  std::string m_script;
  CBatchOptions m_batches;
  bool m_bNoCheck = false;
  std::string m_tags;
  int64_t m_nMaxSteps = 0;
  bool m_bJson = false;
};

int Replay(const CReplayOptions& options, const CContext& context) {
  const std::string text = ReadScriptFile(options.m_script);
  if (!options.m_bNoCheck && !PassesVerification(options.m_script, text, context)) return kFailed;
  if (!options.m_tags.empty()) {
    throw CCommandError(kFailed, "--tags needs the shared store, which this build does not have");
  }
  const std::unique_ptr<CReplayReport> report = MakeReport(options.m_bJson, context.m_color);
  CReplayOwner owner(*report);
  CKVL engine(&owner, "");
  engine._CompileMainScript1(engine.LoadText(text));
  engine.SetMaxSteps(options.m_nMaxSteps);
  int32_t result = engine.Commands().empty() ? -1 : 0;
  ForEachBatch(options.m_batches, [&](const CBatch& batch) {
    owner.NextPass();
    result = engine.Begin(batch.data(), static_cast<int32_t>(batch.size()));
    if (engine.LimitReached()) report->Limit(owner.Pass());
  });
  report->End(owner.Pass(), result, engine);
  return kDone;
}

}  // namespace

void AddReplayCommand(CLI::App& app, CContext& context) {
  auto options = std::make_shared<CReplayOptions>();
  CLI::App* command = app.add_subcommand("replay", "Run a script offline over captured bytes");
  command->add_option("SCRIPT", options->m_script, "The script")->required();
  CLI::Option* input = command->add_option("INPUT", options->m_batches.m_input,
                                           "File of raw bytes, - for standard input");
  CLI::Option* chunk =
      command
          ->add_option("--chunk", options->m_batches.m_nChunk, "Cut INPUT into batches of N bytes")
          ->check(CLI::Range(size_t{1}, size_t{1} << 30))
          ->type_name("N")
          ->capture_default_str();
  command->add_flag("--lines", options->m_batches.m_bLines, "Cut INPUT behind each LF instead")
      ->excludes(chunk);
  command
      ->add_flag("--real-time", options->m_batches.m_bRealTime,
                 "Replay a capture file at the pace at which it was made")
      ->excludes(chunk)
      ->excludes("--lines");
  command
      ->add_option("--batch", options->m_batches.m_batches,
                   "One batch, as hexadecimal; may be repeated; '' is an empty batch")
      ->type_name("HEX")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->excludes(input);
  command->add_flag("--no-check", options->m_bNoCheck, "Skip verification");
  command->add_option("--tags", options->m_tags, "Lay the tags of FILE in a private table")
      ->type_name("FILE");
  command->add_option("--max-steps", options->m_nMaxSteps, "End a pass after N instructions")
      ->check(CLI::PositiveNumber)
      ->type_name("N");
  command->add_flag("--json", options->m_bJson, "Print events as JSON, one object a line");
  command->callback([options, chunk, &context] {
    options->m_batches.m_bCut = chunk->count() > 0 || options->m_batches.m_bLines;
    context.m_work = [options, &context] { return Replay(*options, context); };
  });
}

}  // namespace kvl::cli
