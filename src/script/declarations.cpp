#include "script/declarations.h"

#include <cstdlib>

#include "script/decimal.h"

namespace kvl {

EElementType TypeOfSuffix(char suffix) {
  switch (suffix) {
    case '$':
      return kByte;
    case '%':
      return kInteger;
    case '#':
      return kDouble;
    default:
      return kNoType;
  }
}

int32_t ElementSize(EElementType type) {
  switch (type) {
    case kByte:
      return 1;
    case kInteger:
      return 4;
    case kDouble:
      return 8;
    default:
      return 0;
  }
}

int FindStatement(std::string_view token, std::span<const std::string_view> words) {
  for (size_t i = 0; i < words.size(); ++i) {
    if (token.find(words[i]) != token.npos) return static_cast<int>(i);
  }
  return -1;
}

std::string_view QuotedText(std::string_view token) {
  return token.size() < 2 ? std::string_view() : token.substr(1, token.size() - 2);
}

std::span<uint8_t> BytesOf(const CVariableTable& variable) {
  const auto size = static_cast<size_t>(variable.m_nSize);
  if (variable.m_nKind != kVar) return {BlockOf(variable), size};
  // The value lies in the record itself, which the storage owns and instructions change.
  return {const_cast<uint8_t*>(variable.m_value), size};
}

CVariableTable* CVariableStorage::AppendWithBlock(std::string_view name, int64_t bytes) {
  if (!FitsStorage(bytes, m_nBlockBytes)) return nullptr;
  // Zeroed pages cost nothing until a script touches them. A block has a byte even at size 0.
  auto* block = static_cast<uint8_t*>(std::calloc(static_cast<size_t>(bytes) + 1, 1));
  CVariableTable* record = block == nullptr ? nullptr : m_list.Append(name);
  if (record == nullptr) {
    std::free(block);
    return nullptr;
  }
  Store(record->m_value, block);
  m_nBlockBytes += bytes;
  return record;
}

void CVariableStorage::DeclareDim(std::string_view nameAndSuffix, int32_t count) {
  if (nameAndSuffix.empty() || count < 0) return;
  const EElementType type = TypeOfSuffix(nameAndSuffix.back());
  if (type == kNoType) return;
  nameAndSuffix.remove_suffix(1);
  const int64_t bytes = int64_t{count} * ElementSize(type);
  CVariableTable* record = AppendWithBlock(nameAndSuffix, bytes);
  if (record == nullptr) return;
  record->m_nKind = kDim;
  record->m_nType = type;
  record->m_nSize = static_cast<int32_t>(bytes);
}

void CVariableStorage::DeclareVar(std::string_view nameAndSuffix, std::string_view value) {
  if (nameAndSuffix.empty()) return;
  const EElementType type = TypeOfSuffix(nameAndSuffix.back());
  if (type == kNoType) return;
  nameAndSuffix.remove_suffix(1);
  CVariableTable* record = m_list.Append(nameAndSuffix);
  if (record == nullptr) return;
  record->m_nKind = kVar;
  record->m_nType = type;
  record->m_nSize = ElementSize(type);
  if (type == kDouble) {
    Store(record->m_value, ParseDouble(value));
  } else if (type == kInteger) {
    Store(record->m_value, ParseInteger(value));
  } else {
    Store(record->m_value, static_cast<uint8_t>(ParseInteger(value)));
  }
}

void CVariableStorage::DeclareText(EVariableKind kind, std::string_view name,
                                   std::string_view text) {
  if (name.empty()) return;
  CVariableTable* record = AppendWithBlock(name, static_cast<int64_t>(text.size()));
  if (record == nullptr) return;
  record->m_nKind = kind;
  record->m_nType = kByte;
  record->m_nSize = static_cast<int32_t>(text.size());
  text.copy(reinterpret_cast<char*>(BlockOf(*record)), text.size());
}

void CVariableStorage::Clear() {
  for (const CVariableTable& variable : m_list.Records()) {
    if (variable.m_nKind != kVar) std::free(BlockOf(variable));
  }
  m_list.Clear();
  m_nBlockBytes = 0;
}

void CVariableStorage::SaveTo(std::vector<uint8_t>& image) const {
  image.clear();
  for (const CVariableTable& variable : m_list.Records()) {
    const std::span<uint8_t> bytes = BytesOf(variable);
    image.insert(image.end(), bytes.begin(), bytes.end());
  }
}

bool CVariableStorage::Equals(const std::vector<uint8_t>& image) const {
  size_t at = 0;
  for (const CVariableTable& variable : m_list.Records()) {
    const std::span<uint8_t> bytes = BytesOf(variable);
    if (at + bytes.size() > image.size()) return false;
    if (std::memcmp(image.data() + at, bytes.data(), bytes.size()) != 0) return false;
    at += bytes.size();
  }
  return at == image.size();
}

}  // namespace kvl
