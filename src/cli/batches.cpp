#include "cli/batches.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iostream>

#include "cli/commands.h"
#include "cli/output.h"

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

}  // namespace

void ForEachBatch(const CBatchOptions& options, const std::function<void(const CBatch&)>& pass) {
  if (options.m_input.empty()) {
    std::vector<CBatch> batches = BatchesOfHex(options.m_batches);
    if (options.m_batches.empty()) batches.emplace_back();
    std::ranges::for_each(batches, pass);
    return;
  }
  std::ifstream file;
  if (options.m_input != "-") file.open(options.m_input, std::ios::binary);
  std::istream& stream = options.m_input == "-" ? std::cin : file;
  stream.peek();  // a directory shows here
  const auto refuse = [&options] {
    throw CCommandError(kUsage, fmt::format("'{}' can't be read", options.m_input));
  };
  if (stream.bad() || (!stream.eof() && stream.fail())) refuse();
  CBatch batch;
  while (ReadBatch(stream, options, batch)) pass(WithoutZeros(batch));
  if (stream.bad()) refuse();
}

}  // namespace kvl::cli
