// The named records of a script: variables with their storage, and labels.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/api.h"
#include "script/records.h"

namespace kvl {

constexpr int32_t kMaxVariableBytes = 16 << 20;           // of one DIM
constexpr int64_t kMaxStorageBytes = int64_t{256} << 20;  // of all blocks of a script

// Whether a block of `bytes` bytes may join those of `used` bytes.
constexpr bool FitsStorage(int64_t bytes, int64_t used) {
  return bytes <= kMaxVariableBytes && used + bytes <= kMaxStorageBytes;
}

// The element type that a suffix stands for, or kNoType.
EElementType TypeOfSuffix(char suffix);

// Bytes of one element: 1, 4 or 8; 0 for kNoType.
KVL_API int32_t ElementSize(EElementType type);

// The first of `words` that occurs anywhere in `token`, as its position in the list, or -1.
int FindStatement(std::string_view token, std::span<const std::string_view> words);

// The text between the first and the last byte of an EQU or ASSIGN value; empty if there is none.
std::string_view QuotedText(std::string_view token);

// Records of one kind in declaration order, found by name. Of two records with one name the first
// is found. Records keep their addresses.
template <class TRecord, char (TRecord::*TName)[kMaxName + 1]>
class CNamedList {
 public:
  // Appends a zeroed record. Null, and nothing appended, if the name exceeds kMaxName bytes.
  TRecord* Append(std::string_view name) {
    if (name.size() > static_cast<size_t>(kMaxName)) return nullptr;
    TRecord& record = m_records.emplace_back();
    record = TRecord{};
    name.copy(record.*TName, name.size());
    m_byName.emplace(std::string_view(record.*TName), &record);
    return &record;
  }
  const TRecord* Find(std::string_view name) const {
    const auto found = m_byName.find(name);
    return found == m_byName.end() ? nullptr : found->second;
  }
  const std::deque<TRecord>& Records() const { return m_records; }
  void Clear() {
    m_byName.clear();
    m_records.clear();
  }

 private:
  std::deque<TRecord> m_records;
  std::unordered_map<std::string_view, TRecord*> m_byName;
};

using CLabelList = CNamedList<CLabelTable, &CLabelTable::m_szLabel>;
using CVariableList = CNamedList<CVariableTable, &CVariableTable::m_szName>;

// The variables of a running script together with the blocks they point to.
class CVariableStorage {
 public:
  CVariableStorage() = default;
  ~CVariableStorage() { Clear(); }
  CVariableStorage(const CVariableStorage&) = delete;
  CVariableStorage& operator=(const CVariableStorage&) = delete;

  // Each declares one variable, or nothing if the line has no defined meaning: no known suffix,
  // a name or a size beyond its limit.
  void DeclareDim(std::string_view nameAndSuffix, int32_t count);
  void DeclareVar(std::string_view nameAndSuffix, std::string_view value);
  void DeclareText(EVariableKind kind, std::string_view name, std::string_view text);

  const CVariableTable* Find(std::string_view name) const { return m_list.Find(name); }
  const std::deque<CVariableTable>& Records() const { return m_list.Records(); }
  void Clear();

  // Everything a script can change, as bytes: to tell whether a pass changed anything.
  void SaveTo(std::vector<uint8_t>& image) const;
  bool Equals(const std::vector<uint8_t>& image) const;

 private:
  // A record with a zeroed block of `bytes` bytes behind it, or null.
  CVariableTable* AppendWithBlock(std::string_view name, int64_t bytes);

  CVariableList m_list;
  int64_t m_nBlockBytes = 0;
};

// Bytes that belong to a variable: what may be read and written through it. The zero byte behind
// a text is none of them.
KVL_API std::span<uint8_t> BytesOf(const CVariableTable& variable);

}  // namespace kvl
