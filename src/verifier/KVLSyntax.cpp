#include "verifier/KVLSyntax.h"

#include <algorithm>
#include <new>

#include "platform/text_encoding.h"
#include "script/operand.h"
#include "script/source_reader.h"

namespace kvl {
namespace {

std::string_view ViewOf(const char* text) {
  return text == nullptr ? std::string_view() : text;
}

// A path as messages hold it. Bytes that are no UTF-8 are taken for code page 949.
std::string EncodePath(std::string_view path) {
  std::string encoded;
  return Cp949FromUtf8(path, encoded) ? encoded : std::string(path);
}

}  // namespace

CKVLSyntax::CKVLSyntax(CEngineOwner* pParent) : m_pParent(pParent) {
  m_listError.reserve(1);
  m_outOfMemory = {
      EMessage::OutOfMemory,
      EFaultPlace::Script,
      -1,
      -1,
      kNoCommand,
      {},
      FormatMessage(EMessage::OutOfMemory, -1, {}),
  };
}

CKVLSyntax::~CKVLSyntax() = default;

int32_t CKVLSyntax::LoadScript(const char* pszPath) try {
  std::string text;
  if (pszPath != nullptr && ReadScript(pszPath, text)) return LoadText(text);
  RefuseScript(EMessage::FileUnreadable, kNoLine, EncodePath(ViewOf(pszPath)));
  return -1;
} catch (const std::bad_alloc&) {
  RunOutOfMemory();
  return -1;
}

int32_t CKVLSyntax::LoadText(std::string_view text) try {
  while (!text.empty()) m_saLine.emplace_back(TakeChunk(text));
  CSectionReader sections;
  std::string main;
  for (size_t i = 0; i < m_saLine.size(); ++i) {
    const std::string_view line = CSectionReader::Trim(m_saLine[i]);
    if (!sections.IsMain(line)) {
      SplitDeclaration(line, m_saToken);
      _CompileVariableScript(static_cast<int32_t>(i));
      m_saToken.clear();
    } else if (NormaliseMain(line, main)) {
      m_saMain.push_back(main);
      m_waMainLine.push_back(static_cast<uint32_t>(i));
    }
  }
  return static_cast<int32_t>(m_saMain.size());
} catch (const std::bad_alloc&) {
  RunOutOfMemory();
  return -1;
}

int32_t CKVLSyntax::_CompileMainScript1(int32_t nLines) try {
  const size_t count = std::min(static_cast<size_t>(std::max(nLines, 0)), m_saMain.size());
  m_listCommand.reserve(m_listCommand.size() + count);
  bool begin = false;
  bool end = false;
  for (size_t i = 0; i < count; ++i) {
    const std::string& line = m_saMain[i];
    if (line.find("BEGIN:") != line.npos) {
      begin = true;
    } else if (line.find("END:") != line.npos) {
      end = true;
    }
    CompileLine(line, static_cast<int32_t>(m_waMainLine[i]) + 1);
  }
  if (!begin) RefuseScript(EMessage::NoBegin, -1);
  if (!end) RefuseScript(EMessage::NoEnd, -1);
  return 0;
} catch (const std::bad_alloc&) {
  RunOutOfMemory();
  return 0;
}

void CKVLSyntax::CompileLine(const std::string& line, int32_t nLine) {
  std::vector<std::string> tokens;
  SplitMain(line, tokens);
  if (tokens.size() == 1) return CompileLabel(tokens[0], nLine);
  if (KeywordNumber(tokens[0]) == kNoCommand) {
    return RefuseLine(EMessage::UnknownInstruction, nLine);
  }
  CCommandTable command;
  const int32_t tooLong = FillCommand(tokens, command);
  if (tooLong >= 0) {
    const std::string& operand = tokens[static_cast<size_t>(tooLong) + 1];
    return RefuseLine(EMessage::OperandTooLong, nLine, tooLong, operand);
  }
  command.m_nLine = nLine;
  m_listCommand.push_back(command);
}

void CKVLSyntax::CompileLabel(std::string_view word, int32_t nLine) {
  if (word.back() != ':') return RefuseLine(EMessage::BadLine, nLine);
  const std::string_view name = word.substr(0, word.size() - 1);
  if (m_listLabel.Find(name) != nullptr) return RefuseLine(EMessage::LabelTwice, nLine);
  CLabelTable* label = m_listLabel.Append(name);
  if (label == nullptr) return RefuseLine(EMessage::LabelTooLong, nLine, -1, name);
  label->m_nIndex = static_cast<int32_t>(m_listCommand.size());
}

int32_t CKVLSyntax::_VerifyMainScript() {
  for (const CCommandTable& command : m_listCommand) CheckCommand(command, command.m_nCommand);
  return 0;
}

const CVariableTable* CKVLSyntax::FindVariableTable(const char* pszName) const {
  return m_listVariable.Find(ViewOf(pszName));
}

const CLabelTable* CKVLSyntax::FindLabelTable(const char* pszName) const {
  return m_listLabel.Find(ViewOf(pszName));
}

int32_t CKVLSyntax::GetKeywordMacro(std::string_view strWord) const {
  return KeywordNumber(strWord);
}

int32_t CKVLSyntax::GetVariableType(const char* pszOperand) const {
  const std::string_view text = ViewOf(pszOperand);
  const CVariableTable* variable = m_listVariable.Find(text.substr(0, text.find('[')));
  return variable == nullptr ? -1 : variable->m_nKind;
}

double CKVLSyntax::GetBufferValue(const char* pszOperand, int32_t& nFault) const {
  const std::string_view text = ViewOf(pszOperand);
  const size_t bracket = text.find('[');
  nFault = 0;
  if (bracket != text.npos) {
    const double index = CalcOperation(pszOperand, pszOperand + bracket);
    // What truncates to 0 is no fault. Beyond 32 bits the engine would wrap to another element.
    if (!(index > -1.0 && index < 2147483648.0)) nFault = -1;
  }
  if (m_listVariable.Find(text.substr(0, bracket)) == nullptr) nFault = -1;
  return 0;
}

double CKVLSyntax::CalcOperation(const char* pszOperand, const char* pszBracket) const {
  // Where no variable is declared, every name reads 0.
  static const CVariableStorage nothing;
  CBinder binder(nothing);
  return EvaluateIndex(
      binder.BindExpression(ViewOf(pszOperand), static_cast<size_t>(pszBracket - pszOperand)));
}

int32_t CKVLSyntax::RemoveVariableTable() {
  m_listVariable.Clear();
  m_nBlockBytes = 0;
  return 0;
}

int32_t CKVLSyntax::RemoveCommandTable() {
  m_listCommand.clear();
  return 0;
}

int32_t CKVLSyntax::RemoveLabelTable() {
  m_listLabel.Clear();
  return 0;
}

int32_t CKVLSyntax::RemoveExportTable() {
  return 0;
}

bool CKVLSyntax::RefuseDeclaration(EMessage message, int32_t nLine, int32_t nOperand,
                                   std::string_view shown) {
  Append({message, EFaultPlace::Declaration, nLine, nOperand, kNoCommand, std::string(shown), {}});
  return false;
}

void CKVLSyntax::RefuseLine(EMessage message, int32_t nLine, int32_t nOperand,
                            std::string_view shown, int32_t nCommand) {
  Append({message, EFaultPlace::MainLine, nLine, nOperand, nCommand, std::string(shown), {}});
}

void CKVLSyntax::RefuseScript(EMessage message, int32_t nLine, std::string_view shown) {
  Append({message, EFaultPlace::Script, nLine, -1, kNoCommand, std::string(shown), {}});
}

void CKVLSyntax::Append(CFault fault) {
  if (TextOf(fault.m_message).m_korean.find("%s") == std::string_view::npos) {
    fault.m_strShown.clear();
  }
  fault.m_strText = FormatMessage(fault.m_message, fault.m_nLine, fault.m_strShown);
  m_listError.push_back(std::move(fault));
}

void CKVLSyntax::RunOutOfMemory() {
  if (m_listError.empty()) m_listError.push_back(std::move(m_outOfMemory));
}

}  // namespace kvl
