#include "store/TableOwner.h"

#include <algorithm>
#include <unordered_set>

#include "platform/last_error.h"
#include "platform/named_event.h"
#include "platform/named_section.h"
#include "platform/text_encoding.h"
#include "store/tag_value.h"

namespace kvl {
namespace {

// The record's name in code page 949. False if it has no end or no such form.
bool NameOf(std::span<const uint8_t> section, const CRecord& record, std::string& strName) {
  std::u16string strWide(kMaxNameUnits + 1, u'\0');
  memcpy(strWide.data(), section.data() + record.m_dwOffset, kNameBytes);
  const size_t nLength = strWide.find(u'\0');
  if (nLength == 0 || nLength == std::u16string::npos) return false;
  strWide.resize(nLength);
  return Cp949FromUtf8(Utf8FromUtf16(strWide), strName);
}

// The tag in a record, but for its name. False if the value area is none of a tag.
bool TagOf(std::span<const uint8_t> section, const CRecord& record, CTagImage& tag) {
  if (record.m_dwLength < kTagHead) return false;
  const auto area = section.subspan(record.m_dwOffset + kRecordHead, record.m_dwLength);
  const auto nSize = LoadAt<uint16_t>(area.data() + kOwnerField + 1);
  if (area.size() - kTagHead < nSize) return false;
  const auto payload = area.subspan(kTagHead, nSize);
  tag.m_type = area[kOwnerField];
  tag.m_payload.assign(payload.begin(), payload.end());
  return true;
}

void RemoveEvents(std::span<const uint8_t> section, EAudience audience) {
  std::vector<std::string> names;
  WalkRecords(section, [&](const CRecord& record) {
    std::string strName;
    if (NameOf(section, record, strName)) names.push_back(strName + kEventSuffix);
    return false;
  });
  CNamedEvent::Remove(names, audience);
}

// Writes a record with an empty payload behind the others; returns where the next one goes.
uint8_t* LayRecord(uint8_t* pRecord, const CTagDefinition& tag) {
  const uint32_t dwLength = kTagHead + tag.m_nSize;
  memcpy(pRecord, tag.m_strWide.data(), tag.m_strWide.size() * sizeof(char16_t));
  StoreAt(pRecord + kNameBytes, dwLength);
  uint8_t* pArea = pRecord + kRecordHead;
  pArea[kOwnerField] = tag.m_type;
  StoreAt(pArea + kOwnerField + 1, tag.m_nSize);
  return pArea + dwLength;
}

}  // namespace

CTableOwner::CTableOwner(std::string_view strTable, EAudience audience)
    : m_strTable(strTable),
      m_audience(audience),
      m_pStore(std::make_unique<CSharedMemory>(strTable, 0, nullptr, audience,
                                               EOpenMode::kOpenExisting)),
      m_dwLastError(m_pStore->LastError()) {}

// Holds the store, of a table that is made if it isn't there, or is no longer.
bool CTableOwner::LockOrMake() {
  if (IsOpen() && m_pStore->Lock()) return true;
  if (!IsOpen() || m_pStore->LastError() == kErrorNotFound) {
    m_pStore = std::make_unique<CSharedMemory>(m_strTable, kTableSize, nullptr, m_audience);
    if (IsOpen() && m_pStore->Lock()) return true;
  }
  return Check(false, m_pStore->LastError());
}

bool CTableOwner::Create(const CTagSet& tags, bool bReplace) {
  if (!LockOrMake()) return false;
  m_pStore->Unlock();
  CNamedSemaphore session(m_strTable + kTableLockSuffix, EOpenMode::kOpenOrCreate, m_audience);
  const CSemaphoreHold hold(session);
  if (!hold) return Check(false, session.Error());
  // Nobody removes the table from now on.
  if (!LockOrMake()) return false;
  const bool bLaid = Lay(tags, bReplace);
  m_pStore->Unlock();
  return bLaid;
}

// The record count is 0 until all records stand, so that whoever dies meanwhile leaves an empty
// table and no half of one.
bool CTableOwner::Lay(const CTagSet& tags, bool bReplace) {
  if (!m_pStore->m_pSection->IsWhole()) return Check(false, kErrorDamaged);
  // All of it, whatever size it claims.
  const std::span<uint8_t> section(m_pStore->m_pSection->View(), m_pStore->m_pSection->Size());
  if (!bReplace && LoadAt<uint32_t>(section.data() + kCountOffset) != 0) {
    return Check(false, kErrorAlreadyExists);
  }
  if (section.size() < tags.Bytes()) return Check(false, kErrorDiskFull);
  RemoveEvents(m_pStore->Section(), m_audience);
  m_pStore->m_pSemaphore->CountChange();
  StoreAt(section.data() + kCountOffset, uint32_t{0});
  StoreAt(section.data() + kSizeOffset, static_cast<uint32_t>(section.size()));
  std::fill(section.begin() + kFirstRecord, section.end(), uint8_t{0});
  uint8_t* pRecord = section.data() + kFirstRecord;
  for (const CTagDefinition& tag : tags.Tags()) pRecord = LayRecord(pRecord, tag);
  StoreAt(section.data() + kCountOffset, static_cast<uint32_t>(tags.Tags().size()));
  return true;
}

bool CTableOwner::List(std::vector<CTagImage>& tags) {
  tags.clear();
  if (!IsOpen()) return Check(false, kErrorNotOpen);
  if (!m_pStore->Lock()) return Check(false, m_pStore->LastError());
  const std::span<const uint8_t> section = m_pStore->Section();
  uint32_t dwCode = kErrorDamaged;
  if (m_pStore->m_pSection->IsWhole()) {
    std::unordered_set<std::string> names;
    dwCode = WalkRecords(section, [&](const CRecord& record) {
      CTagImage tag;
      // Nobody reaches a second record of a name.
      const bool bFirst =
          NameOf(section, record, tag.m_strName) && names.insert(tag.m_strName).second;
      if (bFirst && TagOf(section, record, tag)) tags.push_back(std::move(tag));
      return false;
    });
  }
  m_pStore->Unlock();
  return Check(dwCode == kErrorNotFound, dwCode);
}

bool CTableOwner::Get(std::string_view strTag, CTagImage& tag) {
  const std::shared_ptr<CTag> pTag = m_pStore->BindTag(strTag);
  if (!pTag) return Check(false, m_pStore->LastError());
  const CValueAccess value(*m_pStore, *pTag);
  if (!value.HasTag()) return Check(false, value ? kErrorInvalidData : m_pStore->LastError());
  const auto payload = value.Payload();
  tag.m_strName = pTag->Name();
  tag.m_type = value.Type();
  tag.m_payload.assign(payload.begin(), payload.end());
  return true;
}

bool CTableOwner::Set(std::string_view strTag, std::string_view strText, std::string& strFault) {
  CTagImage tag;
  std::vector<uint8_t> payload;
  strFault.clear();
  if (Get(strTag, tag)) {
    const auto nSize = static_cast<uint16_t>(tag.m_payload.size());
    if (!PayloadFromText(tag.m_type, nSize, strText, payload, strFault)) {
      return Check(false, kErrorBadParameter);
    }
    const std::shared_ptr<CTag> pTag = m_pStore->BindTag(strTag);
    CValueAccess value(*m_pStore, *pTag);
    // The table may have been laid anew in between.
    if (value.HasTag() && value.Type() == tag.m_type && value.PayloadSize() == nSize &&
        value.WritePayload(payload.data(), nSize)) {
      return true;
    }
    m_dwLastError = value ? kErrorInvalidData : m_pStore->LastError();
  }
  strFault = ErrorText(m_dwLastError);
  return false;
}

uint32_t CTableOwner::Remove(std::string_view strTable, EAudience audience) {
  const std::string strName(strTable);
  const std::string strLock = strName + kLockSuffix;
  const auto IsThere = [audience](const std::string& strSemaphore) {
    return CNamedSemaphore(strSemaphore, EOpenMode::kOpenExisting, audience).IsOpen();
  };
  if (!IsThere(strLock) && !IsThere(strName + kTableLockSuffix)) {
    const CNamedSection probe(strName, 0, EOpenMode::kOpenExisting, audience);
    if (!probe.IsOpen()) return probe.Error();
  }
  CNamedSemaphore session(strName + kTableLockSuffix, EOpenMode::kOpenOrCreate, audience);
  const CSemaphoreHold sessionHold(session);
  if (!sessionHold) return session.Error();
  CNamedSemaphore lock(strLock, EOpenMode::kOpenOrCreate, audience);
  const CSemaphoreHold lockHold(lock);
  if (!lockHold) return lock.Error();
  {
    const CNamedSection section(strName, 0, EOpenMode::kOpenExisting, audience);
    if (section.IsOpen()) RemoveEvents({section.View(), section.Size()}, audience);
  }
  lock.Remove();
  session.Remove();
  CNamedSection::Remove(strName, audience);
  return 0;
}

bool CTableOwner::Check(bool bDone, uint32_t dwCode) {
  if (!bDone) {
    m_dwLastError = dwCode;
    SetThreadError(dwCode);
  }
  return bDone;
}

}  // namespace kvl
