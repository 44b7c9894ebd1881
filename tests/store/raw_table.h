// A table laid byte by byte, as an owner in another language would.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/named_section.h"
#include "platform/named_semaphore.h"
#include "store/table_format.h"

constexpr auto kPrivate = kvl::EAudience::kThisProcess;

inline void AppendWord(std::string& bytes, uint32_t nValue, int nBytes = 4) {
  for (int i = 0; i < nBytes; ++i) bytes += static_cast<char>(nValue >> (8 * i));
}

inline std::string RecordBytes(std::u16string_view strName, const std::string& strArea) {
  std::string bytes;
  for (const char16_t c : strName) AppendWord(bytes, c, 2);
  bytes.resize(kvl::kNameBytes);
  AppendWord(bytes, static_cast<uint32_t>(strArea.size()));
  return bytes + strArea;
}

// A value area that holds a tag.
inline std::string TagArea(uint8_t type, const std::string& strPayload) {
  std::string area(32, 'o');
  area += static_cast<char>(type);
  AppendWord(area, static_cast<uint32_t>(strPayload.size()), 2);
  return area + 'b' + strPayload;
}

inline std::string TableBytes(const std::vector<std::string>& records, uint32_t dwSize) {
  std::string bytes;
  AppendWord(bytes, static_cast<uint32_t>(records.size()));
  AppendWord(bytes, dwSize);
  for (const std::string& strRecord : records) bytes += strRecord;
  return bytes;
}

// The section and the semaphore of a table that only this process sees.
class CRawTable {
 public:
  CRawTable(const std::string& strName, uint32_t dwSize)
      : m_strName(strName),
        m_section(strName, dwSize, kvl::EOpenMode::kOpenOrCreate, kPrivate),
        m_semaphore(strName + "_Sync", kvl::EOpenMode::kOpenOrCreate, kPrivate) {}
  ~CRawTable() { kvl::CNamedSection::Remove(m_strName, kPrivate); }
  CRawTable(const CRawTable&) = delete;
  CRawTable& operator=(const CRawTable&) = delete;

  // Replaces the section's first bytes; the change is counted unless the owner forgets to.
  void Lay(const std::string& bytes, bool bCounted = true) {
    const kvl::CSemaphoreHold hold(m_semaphore);
    memcpy(m_section.View(), bytes.data(), bytes.size());
    if (bCounted) m_semaphore.CountChange();
  }
  std::string Bytes(size_t nOffset, size_t nBytes) const {
    return {reinterpret_cast<const char*>(m_section.View()) + nOffset, nBytes};
  }
  size_t Size() const { return m_section.Size(); }

 private:
  const std::string m_strName;
  kvl::CNamedSection m_section;
  kvl::CNamedSemaphore m_semaphore;
};
