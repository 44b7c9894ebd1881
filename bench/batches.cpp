#include <fmt/format.h>

#include <random>

#include "bench/peer.h"

namespace kvl::bench {
namespace {

constexpr size_t kBatches = 64;  // so many that no branch predictor learns them by heart
constexpr size_t kFrame = 64;
constexpr size_t kLinesBatch = 1400;

using CRandom = std::mt19937;

int Pick(CRandom& random, int least, int most) {
  return least + static_cast<int>(random() % static_cast<unsigned>(most - least + 1));
}

CBatch ToBatch(const std::string& text) {
  return {text.begin(), text.end()};
}

// 62 bytes, their sum and their exclusive or. Each eighth frame is damaged.
CBatch MakeFrame(CRandom& random, size_t number) {
  for (;;) {
    CBatch frame(kFrame);
    uint8_t sum = 0;
    uint8_t lrc = 0;
    for (size_t i = 0; i + 2 < kFrame; ++i) {
      frame[i] = static_cast<uint8_t>(Pick(random, 1, 255));
      sum = static_cast<uint8_t>(sum + frame[i]);
      lrc = static_cast<uint8_t>(lrc ^ frame[i]);
    }
    if (number % 8 == 7) lrc = static_cast<uint8_t>(lrc ^ 0x10);
    frame[kFrame - 2] = sum;
    frame[kFrame - 1] = lrc;
    if (sum != 0 && lrc != 0) return frame;
  }
}

std::string MakeSentence(CRandom& random, size_t number) {
  const std::string place = fmt::format(
      "{:02}{:02}.{:03},N,{:03}{:02}.{:03},E", Pick(random, 0, 89), Pick(random, 0, 59),
      Pick(random, 0, 999), Pick(random, 0, 179), Pick(random, 0, 59), Pick(random, 0, 999));
  const int time = Pick(random, 100000, 235959);
  const std::string body =
      number % 2 == 0 ? fmt::format("GPGGA,{:06}.00,{},1,{:02},{:.1f},{:.1f},M,46.9,M,,", time,
                                    place, Pick(random, 4, 12), Pick(random, 5, 99) / 10.0,
                                    Pick(random, 1, 20000) / 10.0)
                      : fmt::format("GPRMC,{:06}.00,A,{},{:.1f},{:.1f},230326,003.1,W", time, place,
                                    Pick(random, 0, 300) / 10.0, Pick(random, 0, 3599) / 10.0);
  uint8_t sum = 0;
  for (const char c : body) sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(c));
  return fmt::format("${}*{:02X}\r\n", body, sum);
}

std::string MakeWeight(CRandom& random) {
  return fmt::format("ST,GS,{}{:8.3f}kg\r\n", Pick(random, 0, 3) == 0 ? '-' : '+',
                     Pick(random, 0, 9999999) / 1000.0);
}

CBatch MakeLines(CRandom& random) {
  std::string lines;
  for (size_t number = 0;; ++number) {
    const std::string line = MakeSentence(random, number);
    if (lines.size() + line.size() > kLinesBatch) break;
    lines += line;
  }
  // A last short line fills the batch up.
  if (lines.size() < kLinesBatch) lines += std::string(kLinesBatch - lines.size() - 1, '-') + '\n';
  return ToBatch(lines);
}

}  // namespace

std::vector<CBatch> MakeBatches(const std::string& workload) {
  CRandom random(20240601);
  std::vector<CBatch> batches;
  for (size_t i = 0; i < kBatches; ++i) {
    if (workload == "checksum") {
      batches.push_back(MakeFrame(random, i));
    } else if (workload == "nmea") {
      batches.push_back(ToBatch(MakeSentence(random, i)));
    } else if (workload == "scale") {
      batches.push_back(ToBatch(MakeWeight(random)));
    } else {
      batches.push_back(MakeLines(random));
    }
  }
  return batches;
}

}  // namespace kvl::bench
