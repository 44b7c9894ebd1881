// A replay and the options that shape it, for every command that runs one.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>

#include "cli/batches.h"
#include "cli/commands.h"
#include "cli/replay_owner.h"

namespace kvl::cli {

struct CReplayOptions {
  std::string m_script;
  CBatchOptions m_batches;
  bool m_bNoCheck = false;
  std::string m_tags;
  int64_t m_nMaxSteps = 0;
};

// Everything but SCRIPT and INPUT, which each command names in its own way. `options` outlives
// `command`.
void AddReplayOptions(CLI::App& command, CReplayOptions& options);

// Runs the script over its batches and tells `report` what happens. kFailed, with its faults on
// standard error, for a script that does not pass verification. Throws CCommandError.
int Replay(const CReplayOptions& options, const CContext& context, CReplayReport& report);

}  // namespace kvl::cli
