#include "store/SharedMemory.h"

#include <algorithm>
#include <exception>
#include <new>

#include "platform/last_error.h"
#include "platform/text_encoding.h"

namespace kvl {
namespace {

constexpr uint32_t kNoRecord = 0;  // the section's head is there

// Names that a script makes at run time are bound as they come; this many are remembered.
constexpr size_t kMaxTags = 16384;

size_t HashOf(std::u16string_view strWide) {
  return std::hash<std::u16string_view>()(strWide);
}

}  // namespace

CTag::CTag(std::string_view strName, std::u16string strWide, EAudience audience)
    : m_strName(strName),
      m_strWide(std::move(strWide)),
      m_nHash(HashOf(m_strWide)),
      m_event(m_strName + kEventSuffix, audience) {}

CSharedMemory::CSharedMemory(std::string_view strName, uint32_t dwSize,
                             const InitCallback& callback, EAudience audience, EOpenMode mode)
    : m_audience(audience) {
  try {
    Open(strName, dwSize, callback, mode);
  } catch (const std::exception&) {
    SetError(kErrorNoMemory);
  }
}

CSharedMemory::~CSharedMemory() = default;

void CSharedMemory::SetKeepWaiting(std::function<bool()> keepWaiting) {
  if (m_pSemaphore) m_pSemaphore->SetKeepWaiting(std::move(keepWaiting));
}

void CSharedMemory::Open(std::string_view strName, uint32_t dwSize, const InitCallback& callback,
                         EOpenMode mode) {
  if (strName.empty()) return SetError(kErrorInvalidName);
  // No object is made of a table that can't have them all.
  const uint32_t dwNameError = CNamedSemaphore::NameError(std::string(strName) + kTableLockSuffix);
  if (dwNameError != 0) return SetError(dwNameError);
  m_strName = strName;
  const std::string strLock = m_strName + kLockSuffix;
  m_pSemaphore = std::make_unique<CNamedSemaphore>(strLock, mode, m_audience);
  // A section without its semaphore is what a killed remover leaves: the table is still there.
  if (m_pSemaphore->Error() == kErrorNotFound &&
      CNamedSection(m_strName, 0, EOpenMode::kOpenExisting, m_audience).IsOpen()) {
    m_pSemaphore = std::make_unique<CNamedSemaphore>(strLock, EOpenMode::kOpenOrCreate, m_audience);
  }
  if (m_pSemaphore->Take() == ETaken::kNo) {
    SetError(m_pSemaphore->Error());
  } else {
    m_bOpen = OpenSection(dwSize, mode);
    m_pSemaphore->Release();
  }
  if (!m_bOpen) m_strName.clear();
  if (m_bOpen && callback) callback(*this);
}

// Needs: the semaphore is held.
bool CSharedMemory::OpenSection(uint32_t dwSize, EOpenMode mode) {
  m_pSection.reset();
  m_nShapeChanges = UINT64_MAX;  // whatever was known of the shape was of another section
  const bool bTooSmall = mode == EOpenMode::kOpenOrCreate && dwSize < kFirstRecord;
  auto pSection = std::make_unique<CNamedSection>(
      m_strName, dwSize, bTooSmall ? EOpenMode::kOpenExisting : mode, m_audience);
  if (!pSection->IsOpen() || pSection->Size() < kFirstRecord) {
    SetError(pSection->IsOpen() ? kErrorDamaged
             : bTooSmall        ? kErrorBadParameter
                                : pSection->Error());
    return false;
  }
  uint8_t* pView = pSection->View();
  // Neither a size nor a record: its maker died before the head was laid.
  const bool bBlank = LoadAt<uint64_t>(pView) == 0;
  m_bFirstOpener = bBlank;
  if (m_bFirstOpener) {
    const auto dwWhole = static_cast<uint32_t>(pSection->Size());
    memset(pView, 0, dwWhole);
    StoreAt(pView + kSizeOffset, dwWhole);
    m_pSemaphore->CountChange();
  } else if (mode == EOpenMode::kOpenOrCreate) {
    SetThreadError(kErrorAlreadyExists);
  }
  m_pSection = std::move(pSection);
  FollowShape();
  return true;
}

// Whether the section is still the table's. Who takes its name away counts the change, or dies
// doing so, and that counts as well.
bool CSharedMemory::HasSection() const {
  if (!m_pSection) return false;
  return m_pSemaphore->ChangeCount() == m_nShapeChanges ||
         m_pSection->HasName(m_strName, m_audience);
}

// Takes the semaphore. When the table was removed since the last time, goes over to the one that
// has taken its place.
bool CSharedMemory::Lock() {
  const ETaken taken = m_pSemaphore->Take();
  if (taken == ETaken::kNo) {
    SetError(m_pSemaphore->Error());
    return false;
  }
  if (taken == ETaken::kYes && HasSection()) {
    FollowShape();
    return true;
  }
  if (OpenSection(0, EOpenMode::kOpenExisting)) return true;
  m_pSemaphore->Release();
  return false;
}

void CSharedMemory::Unlock() {
  m_pSemaphore->Release();
}

// The bytes that may be touched: no more than are mapped, and no more than the section claims.
std::span<uint8_t> CSharedMemory::Section() const {
  return {m_pSection->View(), std::min<size_t>(m_pSection->Size(), m_dwSize)};
}

bool CSharedMemory::IsNamed(const CRecord& record, std::u16string_view strWide) const {
  if (strWide.size() > kMaxNameUnits) return false;
  const uint8_t* pName = Section().data() + record.m_dwOffset;
  const size_t nBytes = strWide.size() * sizeof(char16_t);
  return memcmp(pName, strWide.data(), nBytes) == 0 && LoadAt<char16_t>(pName + nBytes) == 0;
}

// The first record of the tag's name. A tag that was looked for before is found, or missed, again
// at once: the change count tells that the records lie where they did.
bool CSharedMemory::FindRecord(CTag& tag, CRecord& record) {
  const bool bKnown = tag.m_nShape == m_nShape;
  if (bKnown && tag.m_dwOffset != kNoRecord && RecordAt(Section(), tag.m_dwOffset, record) &&
      IsNamed(record, tag.m_strWide)) {
    return true;
  }
  uint32_t dwCode = kErrorNotFound;
  if (!bKnown || tag.m_dwOffset != kNoRecord) {
    dwCode = m_pSection->IsWhole() ? SearchRecord(tag, record) : kErrorDamaged;
    tag.m_nShape = dwCode == kErrorDamaged ? 0 : m_nShape;
    tag.m_dwOffset = dwCode == 0 ? record.m_dwOffset : kNoRecord;
  }
  if (dwCode != 0) SetError(dwCode);
  return dwCode == 0;
}

// By the index, or else record by record: so a name that the index lacks, or whose record is not
// where the index says, is judged by the table alone.
uint32_t CSharedMemory::SearchRecord(const CTag& tag, CRecord& record) {
  if (!m_bIndexed) BuildIndex();
  const auto found = m_index.find(tag.m_nHash);
  if (found != m_index.end() && RecordAt(Section(), found->second, record) &&
      IsNamed(record, tag.m_strWide)) {
    return 0;
  }
  return WalkRecords(Section(), [&](const CRecord& candidate) {
    record = candidate;
    return IsNamed(candidate, tag.m_strWide);
  });
}

// Notices a change of the table's shape, after which nothing that was remembered holds.
void CSharedMemory::FollowShape() {
  const uint64_t nChanges = m_pSemaphore->ChangeCount();
  const auto dwCount = LoadAt<uint32_t>(m_pSection->View() + kCountOffset);
  if (nChanges == m_nShapeChanges && dwCount == m_dwShapeCount) return;
  m_nShapeChanges = nChanges;
  m_dwShapeCount = dwCount;
  m_dwSize = LoadAt<uint32_t>(m_pSection->View() + kSizeOffset);
  ++m_nShape;
  m_bIndexed = false;
}

void CSharedMemory::BuildIndex() {
  m_index.clear();
  m_bIndexed = true;
  const std::span<const uint8_t> section = Section();
  try {
    m_index.reserve(std::min<size_t>(m_dwShapeCount, section.size() / kRecordHead));
    WalkRecords(section, [&](const CRecord& record) {
      char16_t szName[kMaxNameUnits + 1];
      memcpy(szName, section.data() + record.m_dwOffset, sizeof szName);
      const char16_t* pEnd = std::find(std::begin(szName), std::end(szName), u'\0');
      if (pEnd != std::end(szName)) {
        m_index.emplace(HashOf({szName, static_cast<size_t>(pEnd - szName)}), record.m_dwOffset);
      }
      return false;
    });
  } catch (const std::bad_alloc&) {
    m_index.clear();  // walking does without
  }
}

bool CSharedMemory::ReadValue(std::string_view strName, void* pDestination, uint32_t* pdwLength) {
  const std::shared_ptr<CTag> pTag = BindTag(strName);
  if (!pTag) return false;
  if (pdwLength == nullptr) {
    SetError(kErrorBadParameter);
    return false;
  }
  const CValueAccess value(*this, *pTag);
  if (!value) return false;
  const uint32_t dwRoom = *pdwLength;
  *pdwLength = static_cast<uint32_t>(value.Area().size());
  if (pDestination == nullptr) return true;
  if (dwRoom < value.Area().size()) {
    SetError(kErrorSmallBuffer);
    return false;
  }
  std::copy(value.Area().begin(), value.Area().end(), static_cast<uint8_t*>(pDestination));
  return true;
}

bool CSharedMemory::WriteValue(std::string_view strName, const void* pSource, uint32_t dwFromEnd,
                               uint32_t dwBytes) {
  if (m_bOpen && dwBytes == 0) {
    SetError(kErrorBadLength);
    return false;
  }
  const std::shared_ptr<CTag> pTag = BindTag(strName);
  if (!pTag) return false;
  CValueAccess value(*this, *pTag);
  return value && value.Write(pSource, dwFromEnd, dwBytes);
}

std::shared_ptr<CTag> CSharedMemory::BindTag(std::string_view strName) {
  if (!m_bOpen) {
    SetError(kErrorNotOpen);
    return nullptr;
  }
  try {
    const std::string strKey(strName.substr(0, strName.find('\0')));
    const auto found = m_tags.find(strKey);
    if (found != m_tags.end()) return found->second;
    std::u16string strWide;
    if (!Utf16FromCp949(strKey, strWide)) {
      SetError(kErrorNoUnicode);
      return nullptr;
    }
    std::shared_ptr<CTag> pTag(new CTag(strKey, std::move(strWide), m_audience));
    if (m_tags.size() >= kMaxTags) m_tags.clear();
    m_tags.emplace(strKey, pTag);
    return pTag;
  } catch (const std::bad_alloc&) {
    SetError(kErrorNoMemory);
    return nullptr;
  }
}

void CSharedMemory::SetError(uint32_t dwCode) {
  m_dwLastError = dwCode;
  SetThreadError(dwCode);
}

CValueAccess::CValueAccess(CSharedMemory& store, CTag& tag) : m_store(store), m_tag(tag) {
  m_bLocked = store.Lock();
  CRecord record;
  m_bFound = m_bLocked && store.FindRecord(tag, record);
  if (!m_bFound) return;
  m_area = store.Section().subspan(record.m_dwOffset + kRecordHead, record.m_dwLength);
  if (m_area.size() < kTagHead) return;
  m_type = m_area[kOwnerField];
  m_nPayload = LoadAt<uint16_t>(m_area.data() + kOwnerField + 1);
  m_bTag = m_area.size() - kTagHead >= m_nPayload;
}

CValueAccess::~CValueAccess() {
  if (!m_bLocked) return;
  m_store.Unlock();
  if (m_bWritten) m_tag.m_event.Wake();
}

std::span<const uint8_t> CValueAccess::Payload() const {
  if (!m_bTag) return {};
  return m_area.subspan(kTagHead, m_nPayload);
}

bool CValueAccess::WritePayload(const void* pSource, uint32_t dwBytes) {
  if (!m_bTag) return Refuse(kErrorInvalidData);
  return Write(pSource, m_nPayload, dwBytes);
}

bool CValueAccess::Write(const void* pSource, uint32_t dwFromEnd, uint32_t dwBytes) {
  if (!m_bFound) return false;
  if (dwBytes == 0) return Refuse(kErrorBadLength);
  if (dwBytes > m_area.size()) return Refuse(kErrorNoMemory);
  if (dwFromEnd > m_area.size() || dwBytes > dwFromEnd) return Refuse(kErrorBadParameter);
  memcpy(m_area.data() + (m_area.size() - dwFromEnd), pSource, dwBytes);
  m_bWritten = true;
  try {
    m_tag.m_event.Set();
  } catch (const std::bad_alloc&) {
    // The value is there; its event is looked for again at the next write.
  }
  return true;
}

bool CValueAccess::Refuse(uint32_t dwCode) {
  m_store.SetError(dwCode);
  return false;
}

}  // namespace kvl
