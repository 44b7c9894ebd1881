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

// Verifies the script unless told otherwise, runs it over its batches and tells `report` what
// happens. Throws CCommandError.
int Replay(const CReplayOptions& options, CReplayReport& report, const CContext& context);

}  // namespace kvl::cli
