#include "cli/tags.h"

#include <fmt/format.h>

#include <charconv>

#include "platform/last_error.h"
#include "platform/text_encoding.h"
#include "script/source_reader.h"
#include "store/tag_value.h"

namespace kvl::cli {
namespace {

// As many digits as tell the float from its neighbours, and not those of the double beside it.
double Shortest(float value) {
  char text[64];
  const auto written = std::to_chars(std::begin(text), std::end(text), value);
  double number = value;
  std::from_chars(text, written.ptr, number);
  return number;
}

}  // namespace

std::string NameFromUser(const std::string& name) {
  std::string bytes;
  if (Cp949FromUtf8(name, bytes) && !bytes.empty()) return bytes;
  throw CCommandError(kUsage,
                      fmt::format("'{}' can't be a name: a name is a text in code page 949", name));
}

CTagSet ReadTagFile(const std::string& path, const CContext& context) {
  std::string text;
  if (!ReadScript(path.c_str(), text)) {
    throw CCommandError(kUsage, fmt::format("tag file '{}' can't be read: it must be a file of at "
                                            "most 64 MiB that you may read",
                                            path));
  }
  CTagSet tags;
  const std::vector<CTagFileFault> faults = ParseTagFile(text, tags);
  if (faults.empty()) return tags;
  const CPainter painter(context.m_color, EPrintStream::kError);
  for (const CTagFileFault& fault : faults) {
    fmt::print(stderr, "{} {} {}\n",
               painter.Paint(EColor::Bold, fmt::format("{}:{}:", path, fault.m_nLine)),
               painter.Paint(EColor::Red, "error:"), fault.m_strText);
  }
  throw CCommandError(kFailed, fmt::format("tag file '{}' has faults; nothing was laid", path));
}

std::string TypeText(const CTagImage& tag) {
  switch (tag.m_type) {
    case kTagByte:
      return "byte";
    case kTagInteger:
      return tag.m_payload.size() == 2 ? "int16" : "int32";
    case kTagFloat:
      return "float";
    case kTagText:
      return "text";
    default:
      return fmt::format("type {}", tag.m_type);
  }
}

std::string ValueText(const CTagImage& tag) {
  if (tag.m_type != kTagText) return TagValueText(tag.m_type, tag.m_payload);
  const std::string bytes(tag.m_payload.begin(), tag.m_payload.end());
  return Printable(bytes.substr(0, bytes.find('\0')));
}

std::string ShownValue(const CTagImage& tag) {
  const std::string value = ValueText(tag);
  return tag.m_type == kTagText ? '"' + value + '"' : value;
}

CJson ValueJson(const CTagImage& tag) {
  const CTagValue value = TagValueOf(tag.m_type, tag.m_payload);
  if (const auto* number = std::get_if<int32_t>(&value)) return *number;
  if (const auto* number = std::get_if<float>(&value)) return Shortest(*number);
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  return nullptr;
}

CJson TagJson(const CTagImage& tag) {
  return {{"tag", Utf8FromCp949(tag.m_strName)},
          {"type", tag.m_type},
          {"size", tag.m_payload.size()},
          {"value", ValueJson(tag)},
          {"hex", ToHex(tag.m_payload)}};
}

std::string AdviceToRemove(const std::string& table) {
  return fmt::format("; kvl table remove {} drops it", ShellWord(table));
}

void RefuseTable(const std::string& table, uint32_t dwCode) {
  if (dwCode == kErrorNotFound) {
    throw CCommandError(kFailed, fmt::format("there is no table '{}'; kvl table create {} --tags "
                                             "FILE lays one",
                                             table, ShellWord(table)));
  }
  throw CCommandError(kFailed,
                      fmt::format("table '{}' can't be used: {}{}", table, ErrorText(dwCode),
                                  dwCode == kErrorDamaged ? AdviceToRemove(table) : std::string()));
}

void RefuseTag(const std::string& table, const std::string& tag, uint32_t dwCode) {
  if (dwCode == kErrorNotFound) {
    throw CCommandError(kFailed, fmt::format("table '{}' has no tag '{}'; kvl table show {} "
                                             "lists those that it has",
                                             table, tag, ShellWord(table)));
  }
  throw CCommandError(kFailed,
                      fmt::format("tag '{}' of table '{}': {}", tag, table, ErrorText(dwCode)));
}

}  // namespace kvl::cli
