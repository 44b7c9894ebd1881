#include <fmt/format.h>

#include <cstring>

#include "cli/output.h"
#include "cli/replay_owner.h"
#include "cli/tags.h"
#include "platform/text_encoding.h"

namespace kvl::cli {
namespace {

const char* KindOf(const CVariableTable& variable) {
  switch (variable.m_nKind) {
    case kDim:
      return "DIM";
    case kVar:
      return "VAR";
    case kEqu:
      return "EQU";
    default:
      return "ASSIGN";
  }
}

const char* SuffixOf(const CVariableTable& variable) {
  switch (variable.m_nType) {
    case kByte:
      return "$";
    case kInteger:
      return "%";
    case kDouble:
      return "#";
    default:
      return nullptr;
  }
}

std::span<const uint8_t> ValueOf(const CVariableTable& variable) {
  return BytesOf(variable);
}

class CJsonReport : public CReplayReport {
 public:
  explicit CJsonReport(CJsonSink sink) : m_sink(std::move(sink)) {}

  void Out(int64_t pass, std::span<const uint8_t> bytes, int32_t interval) override {
    m_sink({{"event", "out"}, {"pass", pass}, {"hex", ToHex(bytes)}, {"interval", interval}});
  }
  void Print(int64_t pass, std::string_view message) override {
    m_sink({{"event", "print"}, {"pass", pass}, {"hex", ToHex(message)}});
  }
  void Put(int64_t pass, const CTagImage& tag) override {
    m_sink({{"event", "put"},
            {"pass", pass},
            {"tag", Utf8FromCp949(tag.m_strName)},
            {"hex", ToHex(tag.m_payload)}});
  }
  void Sync(int64_t pass, int32_t value) override {
    m_sink({{"event", "sync"}, {"pass", pass}, {"value", value}});
  }
  void Sleep(int64_t pass, int32_t milliseconds) override {
    m_sink({{"event", "sleep"}, {"pass", pass}, {"ms", milliseconds}});
  }
  void Limit(int64_t pass) override { m_sink({{"event", "limit"}, {"pass", pass}}); }

  void End(int64_t passes, int32_t result, const CKVL& engine,
           const std::vector<CTagImage>& tags) override {
    CJson variables = CJson::array();
    for (const CVariableTable& variable : engine.Variables()) {
      CJson type;
      if (SuffixOf(variable) != nullptr) type = SuffixOf(variable);
      variables.push_back({{"name", Utf8FromCp949(variable.m_szName)},
                           {"kind", KindOf(variable)},
                           {"type", type},
                           {"hex", ToHex(ValueOf(variable))}});
    }
    CJson tagList = CJson::array();
    for (const CTagImage& tag : tags) {
      tagList.push_back({{"name", Utf8FromCp949(tag.m_strName)},
                         {"type", tag.m_type},
                         {"hex", ToHex(tag.m_payload)}});
    }
    m_sink({{"event", "end"},
            {"passes", passes},
            {"result", result},
            {"compare", engine.GetCompare()},
            {"interval", engine.GetOutInterval()},
            {"variables", variables},
            {"tags", tagList}});
  }

 private:
  CJsonSink m_sink;
};

class CTextReport : public CReplayReport {
 public:
  explicit CTextReport(const std::string& color) : m_painter(color, EPrintStream::kOutput) {}

  void Out(int64_t pass, std::span<const uint8_t> bytes, int32_t interval) override {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    const std::string pace = interval > 0 ? fmt::format("  ({} ms apart)", interval) : "";
    Line(pass, "out", fmt::format("\"{}\"{}", Printable(text), pace));
  }
  void Print(int64_t pass, std::string_view message) override {
    Line(pass, "print", Printable(message));
  }
  void Put(int64_t pass, const CTagImage& tag) override {
    Line(pass, "put", fmt::format("{} = {}", Printable(tag.m_strName), ShownValue(tag)));
  }
  void Sync(int64_t pass, int32_t value) override { Line(pass, "sync", std::to_string(value)); }
  void Sleep(int64_t pass, int32_t milliseconds) override {
    Line(pass, "sleep", fmt::format("{} ms", milliseconds));
  }
  void Limit(int64_t pass) override { Line(pass, "limit", "the pass was ended by --max-steps"); }

  void End(int64_t passes, int32_t result, const CKVL& engine,
           const std::vector<CTagImage>& tags) override {
    fmt::print("{} after {} pass{}{}\n", m_painter.Paint(EColor::Bold, "end"), passes,
               passes == 1 ? "" : "es", result < 0 ? ": the script has no instruction" : "");
    for (const CVariableTable& variable : engine.Variables()) {
      const char* suffix = variable.m_nKind <= kVar ? SuffixOf(variable) : "";
      const std::string name = Printable(variable.m_szName) + suffix;
      fmt::print("  {:<6} {:<16} {}\n", KindOf(variable), name, Describe(variable));
    }
    for (const CTagImage& tag : tags) {
      fmt::print("  {:<6} {:<16} {}\n", "tag", Printable(tag.m_strName), ShownValue(tag));
    }
  }

 private:
  void Line(int64_t pass, const char* event, const std::string& text) {
    fmt::print("{} {} {}\n", m_painter.Paint(EColor::Dim, fmt::format("[{}]", pass)),
               m_painter.Paint(EColor::Cyan, fmt::format("{:<5}", event)), text);
  }

  static std::string Number(const CVariableTable& variable, const uint8_t* at) {
    if (variable.m_nType == kInteger) return fmt::format("{}", Load<int32_t>(at));
    return fmt::format("{}", Load<double>(at));
  }

  // A value as a person reads it: a number, a text, or the first elements of a block.
  static std::string Describe(const CVariableTable& variable) {
    const std::span<const uint8_t> bytes = ValueOf(variable);
    if (variable.m_nKind == kVar) {
      if (variable.m_nType == kByte) return fmt::format("{}", Load<int8_t>(bytes.data()));
      return Number(variable, bytes.data());
    }
    if (variable.m_nType == kByte) {
      const std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
      return fmt::format("\"{}\"", Printable(all.substr(0, all.find('\0'))));
    }
    constexpr size_t kShown = 8;
    const auto size = static_cast<size_t>(ElementSize(static_cast<EElementType>(variable.m_nType)));
    std::string text;
    for (size_t i = 0; i < bytes.size() / size && i < kShown; ++i) {
      text += (i == 0 ? "" : ", ") + Number(variable, bytes.data() + i * size);
    }
    return bytes.size() / size > kShown ? text + ", ..." : text;
  }

  CPainter m_painter;
};

}  // namespace

std::unique_ptr<CReplayReport> MakeJsonReport(CJsonSink sink) {
  return std::make_unique<CJsonReport>(std::move(sink));
}

std::unique_ptr<CReplayReport> MakeReport(bool json, const std::string& color) {
  if (json) return MakeJsonReport(PrintJson);
  return std::make_unique<CTextReport>(color);
}

}  // namespace kvl::cli
