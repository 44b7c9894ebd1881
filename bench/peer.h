// One contestant of the engine's benchmark: something that decodes batches.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace kvl::bench {

using CBatch = std::vector<uint8_t>;

// What decoding one batch gave. Contestants that found different things did different work.
struct CFound {
  std::vector<double> m_numbers;
  std::string m_strText;
  bool operator==(const CFound&) const = default;
};

class CPeer {
 public:
  virtual ~CPeer() = default;
  virtual void Run(std::span<const uint8_t> batch) = 0;
  // What the last Run found.
  virtual CFound Found() = 0;
};

// A workload has one name, by which its batches, its reference and its scripts are known:
// "checksum", "nmea", "scale", "lines" (ends found by search) or "bytewise" (the same lines,
// looked at byte by byte).

// The batches of a workload, the same ones at every call. No batch holds a zero byte.
std::vector<CBatch> MakeBatches(const std::string& workload);

// Hand-written C++.
std::unique_ptr<CPeer> MakeReference(const std::string& workload);

// What a peer's module exports under the name "OpenPeer": a contestant that runs the script at
// `path`, to be deleted by the caller.
using FOpenPeer = CPeer* (*)(const char* path);

}  // namespace kvl::bench
