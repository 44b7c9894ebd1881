#include "platform/named_section.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "platform/last_error.h"
#include "platform/posix/named_place.h"

namespace kvl {

CNamedSection::CNamedSection(std::string_view strName, size_t nSize, EOpenMode mode,
                             EAudience audience) {
  CObjectFile file = OpenObject(strName, EObjectKind::kSection, mode, audience, m_dwError);
  if (!file) return;
  // A section without a byte is one whose maker died before it had reserved the memory.
  const int64_t nFound = ObjectSize(file.Get());
  m_bExisted = nFound > 0;
  if (!m_bExisted && mode == EOpenMode::kOpenExisting) {
    m_dwError = kErrorNotFound;
    return;
  }
  const size_t nWanted = m_bExisted ? static_cast<size_t>(nFound) : nSize;
  if (nWanted == 0) {
    m_dwError = kErrorBadParameter;
    return;
  }
  m_nSize = std::min(nWanted, size_t{UINT32_MAX});
  m_pView = static_cast<uint8_t*>(MapObject(file, m_nSize, m_dwError));
  m_nObject = file.Detach();
}

CNamedSection::~CNamedSection() {
  if (m_pView != nullptr) munmap(m_pView, m_nSize);
  if (m_nObject >= 0) close(m_nObject);
}

bool CNamedSection::IsWhole() const {
  return IsOpen() && ObjectSize(m_nObject) >= static_cast<int64_t>(m_nSize);
}

bool CNamedSection::HasName(std::string_view strName, EAudience audience) const {
  uint32_t dwError = 0;
  const CObjectFile named =
      OpenObject(strName, EObjectKind::kSection, EOpenMode::kOpenExisting, audience, dwError);
  return named && IsOpen() && IdOf(named) == IdOf(m_nObject);
}

bool CNamedSection::Remove(std::string_view strName, EAudience audience) {
  uint32_t dwError = 0;
  const CObjectFile file =
      OpenObject(strName, EObjectKind::kSection, EOpenMode::kOpenExisting, audience, dwError);
  return file && RemoveObject(strName, EObjectKind::kSection, audience, IdOf(file));
}

std::vector<std::string> CNamedSection::Names(EAudience audience) {
  return ObjectNames(EObjectKind::kSection, audience);
}

}  // namespace kvl
