// The header of a script: OPEN states the settings of the line, TABLE_NAME the shared table.
#include <algorithm>
#include <iterator>

#include "script/decimal.h"
#include "verifier/KVLSyntax.h"

namespace kvl {
namespace {

enum EHeaderResult : int32_t { kAccepted = 0, kBadValue = -1, kSetTwice = -2 };

constexpr std::string_view kMediaWords[] = {"RS232C", "TCP", "UDP"};
constexpr std::string_view kParityWords[] = {"NONE", "ODD", "EVEN"};
constexpr std::string_view kStopBitWords[] = {"1", "1.5", "2"};

// The position of `value` in `words`, or kCommUnset.
int32_t IndexOfWord(std::string_view value, std::span<const std::string_view> words) {
  const auto found = std::find(words.begin(), words.end(), value);
  return found == words.end() ? kCommUnset : static_cast<int32_t>(found - words.begin());
}

int32_t IndexOfBaudRate(std::string_view value) {
  const auto* found = std::find_if(std::begin(kBaudRates), std::end(kBaudRates),
                                   [&](const BaudRate& rate) { return rate.word == value; });
  return found == std::end(kBaudRates) ? kCommUnset
                                       : static_cast<int32_t>(found - std::begin(kBaudRates));
}

int32_t IndexOfDataBit(std::string_view value) {
  const auto* found = std::find(std::begin(kDataBits), std::end(kDataBits), ParseInteger(value));
  return found == std::end(kDataBits) ? kCommUnset
                                      : static_cast<int32_t>(found - std::begin(kDataBits));
}

EHeaderResult StoreIndex(int32_t& field, int32_t index) {
  if (field != kCommUnset) return kSetTwice;
  field = index;
  return index == kCommUnset ? kBadValue : kAccepted;
}

// A text that doesn't fit is refused: half an address or half a device name names another one.
template <size_t TSize>
EHeaderResult StoreText(char (&field)[TSize], std::string_view value) {
  if (field[0] != '\0') return kSetTwice;
  if (value.size() >= TSize) return kBadValue;
  value.copy(field, value.size());
  return kAccepted;
}

EHeaderResult StoreMedia(COMM& comm, std::string_view value) {
  if (comm.nMedia != kMediaUnset) return kSetTwice;
  comm.nMedia = IndexOfWord(value, kMediaWords) + 1;
  return comm.nMedia == kMediaUnset ? kBadValue : kAccepted;
}

struct CKeyword {
  std::string_view m_word;
  EHeaderResult (*m_store)(COMM& comm, std::string_view value);
};

constexpr CKeyword kKeywords[] = {
    {"MEDIA", StoreMedia},
    {"IP", [](COMM& comm, std::string_view value) { return StoreText(comm.szIP, value); }},
    {"PORT", [](COMM& comm, std::string_view value) { return StoreText(comm.szPort, value); }},
    {"BAUD_RATE",
     [](COMM& comm, std::string_view value) {
       return StoreIndex(comm.nBaudRate, IndexOfBaudRate(value));
     }},
    {"DATA_BIT",
     [](COMM& comm, std::string_view value) {
       return StoreIndex(comm.nDataBit, IndexOfDataBit(value));
     }},
    {"PARITY_BIT",
     [](COMM& comm, std::string_view value) {
       return StoreIndex(comm.nParityBit, IndexOfWord(value, kParityWords));
     }},
    {"STOP_BIT",
     [](COMM& comm, std::string_view value) {
       return StoreIndex(comm.nStopBit, IndexOfWord(value, kStopBitWords));
     }},
};

const CKeyword* FindKeyword(std::string_view word) {
  const auto* found = std::find_if(std::begin(kKeywords), std::end(kKeywords),
                                   [&](const CKeyword& keyword) { return keyword.m_word == word; });
  return found == std::end(kKeywords) ? nullptr : found;
}

}  // namespace

int32_t CKVLSyntax::CheckCom(std::span<const std::string> saToken) {
  if (saToken.size() != 3) return kBadValue;
  const CKeyword* keyword = FindKeyword(saToken[1]);
  return keyword == nullptr ? kBadValue : keyword->m_store(m_comm, saToken[2]);
}

int32_t CKVLSyntax::CheckTableName(std::span<const std::string> saToken) {
  if (!m_strTableName.empty()) return kSetTwice;
  if (saToken.size() != 2) return kBadValue;
  m_strTableName = saToken[1];
  if (!m_strTableName.starts_with('"') || !m_strTableName.ends_with('"')) return kBadValue;
  m_strTableName.erase(m_strTableName.find_last_not_of('"') + 1);
  m_strTableName.erase(0, m_strTableName.find_first_not_of('"'));
  return kAccepted;
}

int32_t CKVLSyntax::GetTableName(std::string& strName) const {
  strName = m_strTableName;
  return static_cast<int32_t>(strName.size());
}

int32_t CKVLSyntax::IsNum(const char* pszText) const {
  const std::string_view text(pszText);
  return std::all_of(text.begin(), text.end(), IsDigit) ? 1 : 0;
}

bool CKVLSyntax::Open(int32_t nLine) {
  switch (CheckCom(m_saToken)) {
    case kAccepted:
      return true;
    case kSetTwice:
      return RefuseDeclaration(EMessage::KeywordTwice, nLine, 0, m_saToken[1]);
    default: {
      const bool complete = m_saToken.size() == 3;
      const int32_t operand = complete && FindKeyword(m_saToken[1]) != nullptr ? 1 : 0;
      return RefuseDeclaration(EMessage::OpenArguments, nLine, complete ? operand : -1);
    }
  }
}

bool CKVLSyntax::NameTable(int32_t nLine) {
  if (m_saToken.size() != 2) return RefuseDeclaration(EMessage::TableNameArguments, nLine);
  switch (CheckTableName(m_saToken)) {
    case kAccepted:
      return true;
    case kSetTwice:
      return RefuseDeclaration(EMessage::KeywordTwice, nLine, 0, m_saToken[1]);
    default:
      return RefuseDeclaration(EMessage::TableNameArguments, nLine, 0);
  }
}

}  // namespace kvl
