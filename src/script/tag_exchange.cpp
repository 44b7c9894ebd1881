#include "script/tag_exchange.h"

#include <algorithm>
#include <string>

#include "script/decimal.h"

namespace kvl {
namespace {

template <class T>
bool Write(CValueAccess& access, T value) {
  return access.WritePayload(&value, sizeof value);
}

bool WriteNumber(CValueAccess& access, double number) {
  switch (access.Type()) {
    case kTagByte:
      return Write(access, NarrowToInt8(number));
    case kTagInteger:
      if (access.PayloadSize() == 2)
        return Write(access, static_cast<int16_t>(NarrowToInt32(number)));
      return Write(access, NarrowToInt32(number));
    case kTagFloat:
      return Write(access, static_cast<float>(number));
    default:
      return false;
  }
}

bool WriteText(CValueAccess& access, std::span<const uint8_t> text) {
  const size_t fits = std::min<size_t>(text.size(), access.PayloadSize());
  return fits > 0 && access.WritePayload(text.data(), static_cast<uint32_t>(fits));
}

// Bytes that a numeric tag hands out, or 0 for any other type.
size_t NumberSize(const CValueAccess& access) {
  switch (access.Type()) {
    case kTagByte:
      return 1;
    case kTagInteger:
      return access.PayloadSize() == 2 ? 2 : 4;
    case kTagFloat:
      return 4;
    default:
      return 0;
  }
}

}  // namespace

CTagExchange::CTagExchange(std::string_view tableName, EAudience audience, CEngineOwner& owner)
    : m_owner(owner),
      m_store(tableName, kTableSize, nullptr, audience),
      m_tableLock(std::string(tableName) + kTableLockSuffix, EOpenMode::kOpenOrCreate, audience) {
  constexpr size_t kMaxPayload = 65535;
  m_payload.reserve(kMaxPayload);  // so that no pass allocates
  const auto runs = [&owner] { return owner.m_bRun != 0; };
  m_store.SetKeepWaiting(runs);
  m_tableLock.SetKeepWaiting(runs);
}

int32_t CTagExchange::NewSlot() {
  m_slots.emplace_back();
  return static_cast<int32_t>(m_slots.size()) - 1;
}

CTag* CTagExchange::Bind(int32_t slot, std::string_view tag) {
  std::shared_ptr<CTag>& bound = m_slots[static_cast<size_t>(slot)];
  if (bound == nullptr || bound->Name() != tag) bound = m_store.BindTag(tag);
  return bound.get();
}

void CTagExchange::Put(int32_t slot, std::string_view tag, const CPutValue& value) {
  CTag* const bound = Bind(slot, tag);
  if (bound == nullptr) return;
  const bool isListened = m_owner.ListensToPuts();
  {
    const CSemaphoreHold hold(m_tableLock);
    if (!hold) return;
    CValueAccess access(m_store, *bound);
    if (!access.HasTag()) return;
    const bool isText = access.Type() == kTagText;
    if (!isText && !value.m_bNumber) return;
    if (!(isText ? WriteText(access, value.m_text) : WriteNumber(access, value.m_number))) return;
    if (!isListened) return;
    const std::span<const uint8_t> payload = access.Payload();
    m_payload.assign(payload.begin(), payload.end());
  }
  m_owner.OnPut(tag, m_payload);
}

void CTagExchange::Get(int32_t slot, std::string_view tag, std::span<uint8_t> to,
                       int32_t textBytes) {
  CTag* const bound = Bind(slot, tag);
  if (bound == nullptr) return;
  const CSemaphoreHold hold(m_tableLock);
  if (!hold) return;
  const CValueAccess access(m_store, *bound);
  if (!access.HasTag()) return;
  const std::span<const uint8_t> payload = access.Payload();
  size_t count = NumberSize(access);
  if (access.Type() == kTagText) {
    const auto wanted = static_cast<size_t>(std::max(textBytes, 0));
    count = std::min({wanted, payload.size(), to.size()});
  } else if (count > payload.size() || count > to.size()) {
    return;  // half a number is none
  }
  std::copy_n(payload.begin(), count, to.begin());
}

}  // namespace kvl
