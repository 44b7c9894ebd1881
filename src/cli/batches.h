// Captured bytes, cut into batches as a line would have brought them.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kvl::cli {

using CBatch = std::vector<uint8_t>;

struct CBatchOptions {
  std::string m_input;                 // a file, "-" for standard input, or empty
  std::vector<std::string> m_batches;  // hexadecimal, each one batch
  size_t m_nChunk = 2048;
  bool m_bLines = false;     // cut behind each LF instead
  bool m_bCut = false;       // cut a capture file too; otherwise each of its reads is a batch
  bool m_bRealTime = false;  // a capture file at the pace at which it was made
};

// Calls `pass` for each batch in order, with the bytes of value 0 left out, as on a live line;
// once with an empty batch if the options name no input. Throws CCommandError for a file that
// can't be read, before the first pass where that shows in time, and for wrong hexadecimal.
void ForEachBatch(const CBatchOptions& options, const std::function<void(const CBatch&)>& pass);

}  // namespace kvl::cli
