// Layout: whatever the bytes are, the laid out script compiles to the same tables, and laying it
// out once more changes nothing.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "fuzz/entries.h"
#include "fuzz/quiet_owner.h"
#include "script/KVL.h"
#include "script/layout.h"

namespace kvl {
namespace {

bool operator==(const CVariableTable& a, const CVariableTable& b) {
  if (a.m_nKind != b.m_nKind || a.m_nType != b.m_nType || a.m_nSize != b.m_nSize) return false;
  if (std::strcmp(a.m_szName, b.m_szName) != 0) return false;
  if (a.m_nKind == kDim) return true;  // always zeros
  const auto bytes = BytesOf(a);
  return std::memcmp(bytes.data(), BytesOf(b).data(), bytes.size()) == 0;
}

bool operator==(const CCommandTable& a, const CCommandTable& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

bool operator==(const CLabelTable& a, const CLabelTable& b) {
  return std::strcmp(a.m_szLabel, b.m_szLabel) == 0 && a.m_nIndex == b.m_nIndex;
}

bool operator==(const CExportTable& a, const CExportTable& b) {
  return a.m_nKind == b.m_nKind && a.m_nType == b.m_nType && a.m_nSize == b.m_nSize;
}

template <class TList>
bool Equal(const TList& a, const TList& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (!(a[i] == b[i])) return false;
  }
  return true;
}

bool CompileAlike(std::string_view one, std::string_view other) {
  CQuietOwner owner;
  CKVL a(&owner, "");
  CKVL b(&owner, "");
  a._CompileMainScript1(a.LoadText(one));
  b._CompileMainScript1(b.LoadText(other));
  return a.MainLines().size() == b.MainLines().size() && Equal(a.Variables(), b.Variables()) &&
         Equal(a.Commands(), b.Commands()) && Equal(a.Labels(), b.Labels()) &&
         Equal(a.Exports(), b.Exports());
}

}  // namespace

void FuzzLayout(std::span<const uint8_t> input) {
  const std::string_view script(reinterpret_cast<const char*>(input.data()), input.size());
  const CLayout layout = LayOutScript(script);
  if (!CompileAlike(script, layout.m_text)) std::abort();
  const CLayout again = LayOutScript(layout.m_text);
  if (again.m_text != layout.m_text || again.m_kept.size() != layout.m_kept.size()) std::abort();
}

}  // namespace kvl
