// The same decoders by hand: what a C++ programmer writes, compiled with -O2.
#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "bench/peer.h"

namespace kvl::bench {
namespace {

using CBytes = std::span<const uint8_t>;

const char* CharsOf(const uint8_t* bytes) {
  return reinterpret_cast<const char*>(bytes);
}

class CChecksum : public CPeer {
 public:
  void Run(CBytes batch) override { m_bGood = IsGood(batch); }
  CFound Found() override { return {{m_bGood ? 1.0 : 0.0}, ""}; }

 private:
  [[gnu::noinline]] static bool IsGood(CBytes frame) {
    if (frame.size() != 64) return false;
    uint8_t sum = 0;
    uint8_t lrc = 0;
    for (const uint8_t byte : frame.first(62)) {
      sum = static_cast<uint8_t>(sum + byte);
      lrc = static_cast<uint8_t>(lrc ^ byte);
    }
    return sum == frame[62] && lrc == frame[63];
  }

  bool m_bGood = false;
};

class CNmea : public CPeer {
 public:
  void Run(CBytes batch) override { m_bGood = Decode(batch); }
  CFound Found() override {
    return {{m_bGood ? 1.0 : 0.0, m_latitude, m_longitude, m_first, m_second}, ""};
  }

 private:
  static constexpr size_t kMaxFields = 24;

  [[gnu::noinline]] bool Decode(CBytes sentence) {
    const char* p = CharsOf(sentence.data());
    const char* const end = p + sentence.size();
    if (sentence.size() < 7 || *p++ != '$') return false;
    const bool isGga = p[2] == 'G';
    const char* fields[kMaxFields] = {};
    size_t count = 0;
    uint8_t sum = 0;
    for (; p != end && *p != '*'; ++p) {
      sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(*p));
      if (*p == ',' && count < kMaxFields) fields[count++] = p + 1;
    }
    uint8_t expected = 0;
    if (end - p < 3 || std::from_chars(p + 1, p + 3, expected, 16).ptr != p + 3) return false;
    if (sum != expected || count < 10) return false;
    Convert(fields[isGga ? 1 : 2], p, m_latitude);
    Convert(fields[isGga ? 3 : 4], p, m_longitude);
    Convert(fields[isGga ? 7 : 6], p, m_first);
    Convert(fields[isGga ? 8 : 7], p, m_second);
    return true;
  }
  static void Convert(const char* field, const char* end, double& value) {
    std::from_chars(field, end, value);
  }

  bool m_bGood = false;
  double m_latitude = 0;
  double m_longitude = 0;
  double m_first = 0;   // precision in metres, or knots
  double m_second = 0;  // height in metres, or course
};

// Sees the answers to the line.
class CLine {
 public:
  virtual ~CLine() = default;
  virtual void Send(std::string_view bytes) { m_strSent = bytes; }
  std::string m_strSent;
};

class CScale : public CPeer {
 public:
  void Run(CBytes batch) override { Decode(batch); }
  CFound Found() override { return {{m_weight}, m_pLine->m_strSent}; }

 private:
  [[gnu::noinline]] void Decode(CBytes batch) {
    const std::string_view frame(CharsOf(batch.data()), batch.size());
    const size_t unit = frame.find("kg");
    if (unit == frame.npos || unit < 15) return;
    const char* p = frame.data() + 7;
    const char* const end = frame.data() + unit;
    while (p != end && *p == ' ') ++p;
    std::from_chars(p, end, m_weight);
    if (frame[6] == '-') m_weight = -m_weight;
    m_pLine->Send("\x06\r\n");
  }

  double m_weight = 0;
  std::unique_ptr<CLine> m_pLine = std::make_unique<CLine>();
};

// Lines without their line end, copied out one after the other into a string that has room for
// them.
class CLines : public CPeer {
 public:
  CFound Found() override { return {{static_cast<double>(m_nTaken)}, m_szLine}; }

 protected:
  void Take(const char* line, size_t length) {
    length = std::min(length, sizeof m_szLine - 1);
    std::memcpy(m_szLine, line, length);
    m_szLine[length] = '\0';
  }

  char m_szLine[129] = {};
  size_t m_nTaken = 0;  // bytes of whole lines
};

class CSearchedLines : public CLines {
 public:
  void Run(CBytes batch) override { Split({CharsOf(batch.data()), batch.size()}); }

 private:
  [[gnu::noinline]] void Split(std::string_view batch) {
    size_t at = 0;
    for (size_t end; (end = batch.find('\n', at)) != batch.npos; at = end + 1) {
      Take(batch.data() + at, end - at);
    }
    m_nTaken = at;
  }
};

class CBytewiseLines : public CLines {
 public:
  void Run(CBytes batch) override { Split({CharsOf(batch.data()), batch.size()}); }

 private:
  [[gnu::noinline]] void Split(std::string_view batch) {
    size_t start = 0;
    for (size_t i = 0; i < batch.size(); ++i) {
      if (batch[i] != '\n') continue;
      Take(batch.data() + start, i - start);
      start = i + 1;
    }
    m_nTaken = start;
  }
};

}  // namespace

std::unique_ptr<CPeer> MakeReference(const std::string& workload) {
  if (workload == "checksum") return std::make_unique<CChecksum>();
  if (workload == "nmea") return std::make_unique<CNmea>();
  if (workload == "scale") return std::make_unique<CScale>();
  if (workload == "lines") return std::make_unique<CSearchedLines>();
  return std::make_unique<CBytewiseLines>();
}

}  // namespace kvl::bench
