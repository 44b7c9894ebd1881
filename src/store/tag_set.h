// The tags that a table is to hold, and the tag files that people write them in.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "platform/api.h"
#include "store/table_format.h"

namespace kvl {

struct CTagDefinition {
  std::string m_strName;  // in code page 949
  std::u16string m_strWide;
  uint8_t m_type = 0;
  uint16_t m_nSize = 0;  // of the payload, in bytes
};

// Tags that fit one table together.
class KVL_API CTagSet {
 public:
  // Adds a tag behind the others: the type is one of ETagType, the size 1 for a byte, 2 or 4 for
  // an integer, 4 for a float, 1 to 65535 for a text. Null, or what is wrong with the tag.
  const char* Add(std::string_view strName, uint8_t type, uint32_t nSize);

  const std::vector<CTagDefinition>& Tags() const { return m_tags; }
  uint32_t Bytes() const { return m_dwBytes; }  // of the section with all its records

 private:
  std::vector<CTagDefinition> m_tags;
  std::unordered_set<std::u16string> m_names;
  uint32_t m_dwBytes = kFirstRecord;
};

struct CTagFileFault {
  int m_nLine = 0;  // from 1
  std::string m_strText;
};

// Reads a tag file, UTF-8: a line `NAME TYPE [SIZE]` for each tag, TYPE one of byte, int16, int32,
// float and text, SIZE for text alone; `#` starts a comment. Returns every fault, in line order;
// with a fault `tags` is of no use.
KVL_API std::vector<CTagFileFault> ParseTagFile(std::string_view strFile, CTagSet& tags);

}  // namespace kvl
