// `kvl table watch`: prints each new value of a table's tags.
#pragma once

#include <string>
#include <vector>

#include "cli/commands.h"

namespace kvl::cli {

struct CWatchOptions {
  std::string m_table;               // as the user wrote it
  std::vector<std::string> m_names;  // of the tags to follow; none for all
  bool m_bJson = false;
};

// Ends with kDone when the user interrupts it. Throws CCommandError if the table or a named tag is
// not there, and when the table is removed.
int WatchTable(const CWatchOptions& options, const CContext& context);

}  // namespace kvl::cli
