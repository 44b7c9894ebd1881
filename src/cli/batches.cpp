#include "cli/batches.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>
#include <utility>

#include "cli/capture.h"
#include "cli/commands.h"
#include "cli/output.h"
#include "platform/clock.h"

namespace kvl::cli {
namespace {

CBatch WithoutZeros(CBatch batch) {
  std::erase(batch, uint8_t{0});
  return batch;
}

std::vector<CBatch> BatchesOfHex(const std::vector<std::string>& texts) {
  std::vector<CBatch> batches;
  for (const std::string& text : texts) {
    CBatch batch;
    if (!FromHex(text, batch)) {
      throw CCommandError(kUsage, fmt::format("--batch '{}' is not hexadecimal: give pairs of the "
                                              "digits 0-9 and a-f, like 4f4b0d0a",
                                              text));
    }
    batches.push_back(WithoutZeros(std::move(batch)));
  }
  return batches;
}

// Cuts what a stream brings into batches.
class CCutter {
 public:
  // `ahead` holds bytes that were taken from the stream already, and no LF.
  CCutter(std::istream& stream, std::string ahead, const CBatchOptions& options)
      : m_stream(stream), m_ahead(std::move(ahead)), m_options(options) {}

  // The next batch, or false at the end.
  bool Next(CBatch& batch) { return m_options.m_bLines ? NextLine(batch) : NextChunk(batch); }

 private:
  bool NextLine(CBatch& batch) {
    std::string line;
    const bool more = static_cast<bool>(std::getline(m_stream, line));
    line.insert(0, std::exchange(m_ahead, {}));
    if (more && !m_stream.eof()) line += '\n';
    batch.assign(line.begin(), line.end());
    return !batch.empty();
  }

  bool NextChunk(CBatch& batch) {
    const size_t ahead = std::min(m_ahead.size(), m_options.m_nChunk);
    batch.assign(m_ahead.begin(), m_ahead.begin() + static_cast<std::ptrdiff_t>(ahead));
    m_ahead.erase(0, ahead);
    batch.resize(m_options.m_nChunk);
    m_stream.read(reinterpret_cast<char*>(batch.data() + ahead),
                  static_cast<std::streamsize>(batch.size() - ahead));
    batch.resize(ahead + static_cast<size_t>(m_stream.gcount()));
    return !batch.empty();
  }

  std::istream& m_stream;
  std::string m_ahead;
  const CBatchOptions& m_options;
};

void WaitUntil(int64_t microseconds, int64_t startMs) {
  const int64_t left = startMs + microseconds / 1000 - GetTickCount();
  if (left > 0) Sleep(static_cast<uint32_t>(left));
}

void ReplayCapture(std::istream& stream, const CBatchOptions& options,
                   const std::function<void(const CBatch&)>& pass) {
  const int64_t start = GetTickCount();
  std::string all;
  CCaptureRecord record;
  while (ReadCaptureRecord(stream, record)) {
    if (options.m_bCut) {
      all.append(record.m_bytes.begin(), record.m_bytes.end());
      continue;
    }
    if (options.m_bRealTime) WaitUntil(record.m_nMicroseconds, start);
    pass(WithoutZeros(std::move(record.m_bytes)));
  }
  std::istringstream whole(all);
  CCutter cutter(whole, {}, options);
  CBatch batch;
  while (options.m_bCut && cutter.Next(batch)) pass(WithoutZeros(batch));
}

}  // namespace

void ForEachBatch(const CBatchOptions& options, const std::function<void(const CBatch&)>& pass) {
  if (options.m_input.empty()) {
    std::vector<CBatch> batches = BatchesOfHex(options.m_batches);
    if (options.m_batches.empty()) batches.emplace_back();
    std::ranges::for_each(batches, pass);
    return;
  }
  std::ios::sync_with_stdio(false);  // standard input is read as a whole file is
  std::ifstream file;
  if (options.m_input != "-") file.open(options.m_input, std::ios::binary);
  std::istream& stream = options.m_input == "-" ? std::cin : file;
  stream.peek();  // a directory shows here
  const auto refuse = [&options] {
    throw CCommandError(kUsage, fmt::format("'{}' can't be read", options.m_input));
  };
  if (stream.bad() || (!stream.eof() && stream.fail())) refuse();
  std::string taken;
  if (SkipCaptureHead(stream, taken)) {
    ReplayCapture(stream, options, pass);
    return;
  }
  if (options.m_bRealTime) {
    throw CCommandError(kUsage, fmt::format("--real-time needs a capture file of kvl run; '{}' is "
                                            "none",
                                            options.m_input));
  }
  CCutter cutter(stream, std::move(taken), options);
  CBatch batch;
  while (cutter.Next(batch)) pass(WithoutZeros(batch));
  if (stream.bad()) refuse();
}

}  // namespace kvl::cli
