#include "store/kvl_table.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/last_error.h"
#include "platform/named_event.h"
#include "platform/text_encoding.h"
#include "store/SharedMemory.h"
#include "store/tag_value.h"

using kvl::CNamedEvent;
using kvl::CSharedMemory;
using kvl::CValueAccess;
using kvl::EWaited;

struct kvl_tag {
  kvl_table* m_pTable;
  const std::string m_strName;
  std::shared_ptr<kvl::CTag> m_pTag;
  // The event by which the tag is followed; opened by the first wait, and by the one behind a
  // removal.
  std::shared_ptr<CNamedEvent> m_pEvent;
  uint32_t m_nSeen = 0;
};

struct kvl_table {
  explicit kvl_table(const std::string& strName)
      : m_store(strName, 0, nullptr, kvl::EAudience::kOwner, kvl::EOpenMode::kOpenExisting) {}

  std::mutex m_mutex;  // guards the store, the list and what changes in the tags
  CSharedMemory m_store;
  std::list<kvl_tag> m_tags;
};

namespace {

// Nothing that is thrown may reach a caller in C.
template <class Work>
int Guarded(Work work) {
  try {
    return static_cast<int>(work());
  } catch (const std::exception&) {
    return KVL_NO_MEMORY;
  }
}

template <class... Pointers>
bool AnyNull(Pointers... pointers) {
  return (... || (pointers == nullptr));
}

bool NameFromUtf8(const char* szText, std::string& strName) {
  return *szText != '\0' && kvl::Cp949FromUtf8(szText, strName);
}

// Runs `work` on the tag's value in one critical section.
template <class Work>
uint32_t WithTag(kvl_tag& tag, Work work) {
  const std::lock_guard lock(tag.m_pTable->m_mutex);
  CSharedMemory& store = tag.m_pTable->m_store;
  const CValueAccess value(store, *tag.m_pTag);
  if (!value) return store.LastError();
  if (!value.HasTag()) return KVL_WRONG_TYPE;
  return work(value);
}

uint32_t ReadCopy(kvl_tag& tag, uint8_t& type, std::vector<uint8_t>& payload) {
  return WithTag(tag, [&](const CValueAccess& value) {
    type = value.Type();
    payload.assign(value.Payload().begin(), value.Payload().end());
    return KVL_OK;
  });
}

// Opens the event by which the tag is followed, and takes the present value as told.
uint32_t Follow(kvl_tag& tag) {
  auto pEvent = std::make_shared<CNamedEvent>(tag.m_pTag->Name() + kvl::kEventSuffix,
                                              tag.m_pTable->m_store.Audience());
  if (!pEvent->IsOpen()) return pEvent->Error();
  const std::lock_guard lock(tag.m_pTable->m_mutex);
  tag.m_nSeen = pEvent->SetCount();
  tag.m_pEvent = std::move(pEvent);
  return KVL_OK;
}

uint32_t Wait(kvl_tag& tag, std::chrono::milliseconds timeout) {
  std::shared_ptr<CNamedEvent> pEvent;
  uint32_t nSeen = 0;
  {
    const std::lock_guard lock(tag.m_pTable->m_mutex);
    pEvent = tag.m_pEvent;
    nSeen = tag.m_nSeen;
  }
  const EWaited result = pEvent ? pEvent->WaitForNext(nSeen, timeout) : EWaited::kRemoved;
  if (result == EWaited::kTimeout) return KVL_TIMEOUT;
  if (result == EWaited::kSet) {
    const std::lock_guard lock(tag.m_pTable->m_mutex);
    if (tag.m_pEvent == pEvent) tag.m_nSeen = nSeen;
    return KVL_OK;
  }
  // The event is not followed yet, or went with a table that was dropped. Only a tag that is
  // there gets a new one.
  const uint32_t dwCode = WithTag(tag, [](const CValueAccess&) { return KVL_OK; });
  return dwCode == KVL_OK ? Follow(tag) : dwCode;
}

}  // namespace

extern "C" {

const char* kvl_error_text(int code) {
  return kvl::ErrorText(static_cast<uint32_t>(code));
}

int kvl_table_open(const char* name, kvl_table** table) {
  if (AnyNull(name, table)) return KVL_BAD_PARAMETER;
  return Guarded([&]() -> uint32_t {
    std::string strName;
    if (!NameFromUtf8(name, strName)) return KVL_BAD_NAME;
    auto pTable = std::make_unique<kvl_table>(strName);
    if (!pTable->m_store.IsOpen()) return pTable->m_store.LastError();
    *table = pTable.release();
    return KVL_OK;
  });
}

void kvl_table_close(kvl_table* table) {
  delete table;
}

int kvl_table_tag(kvl_table* table, const char* name, kvl_tag** tag) {
  if (AnyNull(table, name, tag)) return KVL_BAD_PARAMETER;
  return Guarded([&]() -> uint32_t {
    std::string strName;
    if (!NameFromUtf8(name, strName)) return KVL_BAD_NAME;
    std::list<kvl_tag> fresh;
    {
      const std::lock_guard lock(table->m_mutex);
      auto pTag = table->m_store.BindTag(strName);
      if (!pTag) return table->m_store.LastError();
      fresh.push_back({table, name, std::move(pTag), nullptr});
    }
    const uint32_t dwCode = WithTag(fresh.front(), [](const CValueAccess&) { return KVL_OK; });
    if (dwCode != KVL_OK) return dwCode;
    *tag = &fresh.front();
    const std::lock_guard lock(table->m_mutex);
    table->m_tags.splice(table->m_tags.end(), fresh);
    return KVL_OK;
  });
}

void kvl_tag_close(kvl_tag* tag) {
  if (tag == nullptr) return;
  kvl_table* const pTable = tag->m_pTable;
  const std::lock_guard lock(pTable->m_mutex);
  pTable->m_tags.remove_if([tag](const kvl_tag& other) { return &other == tag; });
}

const char* kvl_tag_name(const kvl_tag* tag) {
  return tag == nullptr ? "" : tag->m_strName.c_str();
}

int kvl_tag_info(kvl_tag* tag, int* type, size_t* size) {
  if (AnyNull(tag, type, size)) return KVL_BAD_PARAMETER;
  return Guarded([&] {
    return WithTag(*tag, [&](const CValueAccess& value) {
      *type = value.Type();
      *size = value.PayloadSize();
      return KVL_OK;
    });
  });
}

int kvl_tag_read(kvl_tag* tag, void* bytes, size_t room, size_t* size) {
  if (AnyNull(tag, bytes, size)) return KVL_BAD_PARAMETER;
  return Guarded([&] {
    return WithTag(*tag, [&](const CValueAccess& value) {
      *size = value.PayloadSize();
      if (room < *size) return KVL_SMALL_BUFFER;
      std::copy(value.Payload().begin(), value.Payload().end(), static_cast<uint8_t*>(bytes));
      return KVL_OK;
    });
  });
}

int kvl_tag_read_number(kvl_tag* tag, double* number) {
  if (AnyNull(tag, number)) return KVL_BAD_PARAMETER;
  return Guarded([&] {
    return WithTag(*tag, [&](const CValueAccess& value) {
      if (value.Type() == kvl::kTagText) return KVL_WRONG_TYPE;
      const kvl::CTagValue number32 = kvl::TagValueOf(value.Type(), value.Payload());
      if (const auto* pInteger = std::get_if<int32_t>(&number32)) {
        *number = *pInteger;
      } else if (const auto* pFloat = std::get_if<float>(&number32)) {
        *number = *pFloat;
      } else {
        return KVL_WRONG_TYPE;
      }
      return KVL_OK;
    });
  });
}

int kvl_tag_read_text(kvl_tag* tag, char* text, size_t room) {
  if (AnyNull(tag, text)) return KVL_BAD_PARAMETER;
  return Guarded([&]() -> uint32_t {
    uint8_t type = 0;
    std::vector<uint8_t> payload;
    const uint32_t dwCode = ReadCopy(*tag, type, payload);
    if (dwCode != KVL_OK) return dwCode;
    const kvl::CTagValue value = kvl::TagValueOf(type, payload);
    const auto* pText = std::get_if<std::string>(&value);
    if (pText == nullptr) return KVL_WRONG_TYPE;
    if (pText->size() >= room) return KVL_SMALL_BUFFER;
    std::copy_n(pText->c_str(), pText->size() + 1, text);
    return KVL_OK;
  });
}

int kvl_tag_wait(kvl_tag* tag, int timeout_ms) {
  if (AnyNull(tag)) return KVL_BAD_PARAMETER;
  return Guarded([&] {
    return Wait(*tag, timeout_ms < 0 ? kvl::kForever : std::chrono::milliseconds(timeout_ms));
  });
}

}  // extern "C"
