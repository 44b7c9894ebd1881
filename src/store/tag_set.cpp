#include "store/tag_set.h"

#include <charconv>

#include "platform/text_encoding.h"

namespace kvl {
namespace {

struct TypeWord {
  std::string_view m_strWord;
  uint8_t m_type;
  uint16_t m_nSize;  // 0: told by the line
};

constexpr TypeWord kTypeWords[] = {
    {"byte", kTagByte, 1},   {"int16", kTagInteger, 2}, {"int32", kTagInteger, 4},
    {"float", kTagFloat, 4}, {"text", kTagText, 0},
};

bool SizeFitsType(uint8_t type, uint32_t nSize) {
  switch (type) {
    case kTagByte:
      return nSize == 1;
    case kTagInteger:
      return nSize == 2 || nSize == 4;
    case kTagFloat:
      return nSize == 4;
    case kTagText:
      return nSize >= 1 && nSize <= UINT16_MAX;
    default:
      return false;
  }
}

// Cuts the first of several pieces off a text.
std::string_view TakeUntil(std::string_view& strRest, char end) {
  const size_t nEnd = strRest.find(end);
  const std::string_view strPiece = strRest.substr(0, nEnd);
  strRest.remove_prefix(nEnd == std::string_view::npos ? strRest.size() : nEnd + 1);
  return strPiece;
}

std::vector<std::string_view> WordsOf(std::string_view strLine) {
  constexpr std::string_view kBlanks = " \t\r\f\v";
  std::vector<std::string_view> words;
  for (;;) {
    const size_t nStart = strLine.find_first_not_of(kBlanks);
    if (nStart == std::string_view::npos) return words;
    strLine.remove_prefix(nStart);
    words.push_back(strLine.substr(0, strLine.find_first_of(kBlanks)));
    strLine.remove_prefix(words.back().size());
  }
}

std::string Quoted(std::string_view strBefore, std::string_view strWord,
                   std::string_view strBehind) {
  return std::string(strBefore).append(strWord).append(strBehind);
}

// Adds the tag that the words of a line tell. Empty, or the fault.
std::string AddLine(const std::vector<std::string_view>& words, CTagSet& tags) {
  if (words.size() < 2) return "a tag needs a name and a type";
  std::string strName;
  if (!Cp949FromUtf8(words[0], strName)) {
    return "the name can't be written in code page 949, so that no script could use it";
  }
  const TypeWord* pType = nullptr;
  for (const TypeWord& word : kTypeWords) {
    if (word.m_strWord == words[1]) pType = &word;
  }
  if (pType == nullptr) {
    return Quoted("unknown type '", words[1], "'; known are byte, int16, int32, float, text");
  }
  uint32_t nSize = pType->m_nSize;
  const size_t nWanted = nSize == 0 ? 3 : 2;
  if (words.size() < nWanted) return "a text needs its size in bytes";
  if (words.size() > nWanted) {
    return Quoted("'", words[nWanted],
                  nWanted == 2 ? "' is too much; only a text has a size" : "' is too much");
  }
  if (nSize == 0) {
    const char* pEnd = words[2].data() + words[2].size();
    const auto parsed = std::from_chars(words[2].data(), pEnd, nSize);
    if (parsed.ec != std::errc() || parsed.ptr != pEnd) nSize = 0;
  }
  const char* szFault = tags.Add(strName, pType->m_type, nSize);
  return szFault == nullptr ? std::string() : szFault;
}

}  // namespace

const char* CTagSet::Add(std::string_view strName, uint8_t type, uint32_t nSize) {
  CTagDefinition tag{std::string(strName), {}, type, static_cast<uint16_t>(nSize)};
  if (!Utf16FromCp949(strName, tag.m_strWide)) return "the name is no text in code page 949";
  if (strName.empty() || strName.find('\0') != std::string_view::npos) {
    return "the name is empty or holds a zero byte";
  }
  if (tag.m_strWide.size() > kMaxNameUnits) return "the name is longer than 39 characters";
  if (type < kTagByte || type > kTagText) return "there is no such type";
  if (!SizeFitsType(type, nSize)) {
    return type == kTagText ? "the size of a text is 1 to 65535" : "the size does not fit the type";
  }
  const uint32_t dwRecord = kRecordHead + kTagHead + nSize;
  if (kTableSize - m_dwBytes < dwRecord) return "the table is full: its tags need over 10 MiB";
  if (!m_names.insert(tag.m_strWide).second) return "there is a tag of this name already";
  m_dwBytes += dwRecord;
  m_tags.push_back(std::move(tag));
  return nullptr;
}

std::vector<CTagFileFault> ParseTagFile(std::string_view strFile, CTagSet& tags) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (strFile.starts_with(kByteOrderMark)) strFile.remove_prefix(kByteOrderMark.size());
  std::vector<CTagFileFault> faults;
  for (int nLine = 1; !strFile.empty(); ++nLine) {
    std::string_view strLine = TakeUntil(strFile, '\n');
    const std::vector<std::string_view> words = WordsOf(TakeUntil(strLine, '#'));
    if (words.empty()) continue;
    std::string strFault = AddLine(words, tags);
    if (!strFault.empty()) faults.push_back({nLine, std::move(strFault)});
  }
  return faults;
}

}  // namespace kvl
