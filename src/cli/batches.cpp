#include "cli/batches.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <sstream>

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

// The next batch of the stream as it is cut, or false at its end.
bool ReadBatch(std::istream& stream, const CBatchOptions& options, CBatch& batch) {
  if (options.m_bLines) {
    std::string line;
    if (!std::getline(stream, line)) return false;
    if (!stream.eof()) line += '\n';
    batch.assign(line.begin(), line.end());
    return true;
  }
  batch.resize(options.m_nChunk);
  stream.read(reinterpret_cast<char*>(batch.data()), static_cast<std::streamsize>(batch.size()));
  batch.resize(static_cast<size_t>(stream.gcount()));
  return !batch.empty();
}

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
  CBatch batch;
  while (options.m_bCut && ReadBatch(whole, options, batch)) pass(WithoutZeros(batch));
}

}  // namespace

void ForEachBatch(const CBatchOptions& options, const std::function<void(const CBatch&)>& pass) {
  if (options.m_input.empty()) {
    std::vector<CBatch> batches = BatchesOfHex(options.m_batches);
    if (options.m_batches.empty()) batches.emplace_back();
    std::ranges::for_each(batches, pass);
    return;
  }
  std::ios::sync_with_stdio(false);  // so that standard input can be looked at and put back
  std::ifstream file;
  if (options.m_input != "-") file.open(options.m_input, std::ios::binary);
  std::istream& stream = options.m_input == "-" ? std::cin : file;
  stream.peek();  // a directory shows here
  const auto refuse = [&options] {
    throw CCommandError(kUsage, fmt::format("'{}' can't be read", options.m_input));
  };
  if (stream.bad() || (!stream.eof() && stream.fail())) refuse();
  if (SkipCaptureHead(stream)) {
    ReplayCapture(stream, options, pass);
    return;
  }
  if (options.m_bRealTime) {
    throw CCommandError(kUsage, fmt::format("--real-time needs a capture file of kvl run; '{}' is "
                                            "none",
                                            options.m_input));
  }
  CBatch batch;
  while (ReadBatch(stream, options, batch)) pass(WithoutZeros(batch));
  if (stream.bad()) refuse();
}

}  // namespace kvl::cli
