// Runs a script over its batches twice: one instruction at a time, and, if every pass came to an
// end so, freely. Rows of instructions that run as one must leave what the single ones leave.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "fuzz/entries.h"
#include "fuzz/quiet_owner.h"
#include "script/KVL.h"

namespace kvl {
namespace {

constexpr int64_t kMaxSteps = 2000;
constexpr int64_t kMaxStorage = 1 << 20;  // a script with more would only copy zero bytes about
constexpr size_t kMaxBatches = 8;

using CBytes = std::span<const uint8_t>;

CBytes TakePart(CBytes& input) {
  const auto end = std::find(input.begin(), input.end(), uint8_t{0});
  const CBytes part(input.begin(), end);
  input = end == input.end() ? CBytes() : CBytes(end + 1, input.end());
  return part;
}

class CSession {
 public:
  explicit CSession(CBytes script) : m_engine(&m_owner, "") {
    m_engine._CompileMainScript1(
        m_engine.LoadText({reinterpret_cast<const char*>(script.data()), script.size()}));
  }
  bool FitsIn(int64_t bytes) const {
    for (const CVariableTable& variable : m_engine.Variables()) bytes -= variable.m_nSize;
    return bytes >= 0;
  }
  void Run(CBytes batch) {
    // A block of its own, so that reading past the batch is found.
    const std::vector<uint8_t> bytes(batch.begin(), batch.end());
    m_engine.Begin(bytes.data(), static_cast<int32_t>(bytes.size()));
  }
  bool Equals(const CSession& other) const {
    if (m_engine.GetCompare() != other.m_engine.GetCompare() ||
        m_owner.m_strSent != other.m_owner.m_strSent) {
      return false;
    }
    return std::equal(m_engine.Variables().begin(), m_engine.Variables().end(),
                      other.m_engine.Variables().begin(), other.m_engine.Variables().end(),
                      [](const CVariableTable& left, const CVariableTable& right) {
                        return std::ranges::equal(BytesOf(left), BytesOf(right));
                      });
  }

  CQuietOwner m_owner;
  CKVL m_engine;
};

}  // namespace

void FuzzBatches(CBytes input) {
  const CBytes script = TakePart(input);
  CSession single(script);
  if (!single.FitsIn(kMaxStorage)) return;
  single.m_engine.SetMaxSteps(kMaxSteps);
  CSession whole(script);
  for (size_t i = 0; i < kMaxBatches && (i == 0 || !input.empty()); ++i) {
    const CBytes batch = TakePart(input);
    single.Run(batch);
    if (single.m_engine.LimitReached()) return;
    whole.Run(batch);
    if (whole.Equals(single)) continue;
    std::fprintf(stderr, "a row does something else than its instructions\n");
    std::abort();
  }
}

}  // namespace kvl
