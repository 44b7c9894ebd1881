#include "script/KVL.h"

#include <algorithm>
#include <new>

#include "script/byte_string.h"
#include "script/escapes.h"
#include "script/source_reader.h"
#include "script/tag_exchange.h"
#include "transport/RS232Ctrl.h"
#include "transport/Sockets.h"
#include "transport/comm.h"

namespace kvl {
namespace {

// The statements that the engine carries out, in the order in which they are looked for. Header
// lines are none of its business.
enum EStatement { kStatementDim, kStatementVar, kStatementExport, kStatementEqu, kStatementAssign };
constexpr std::string_view kStatements[] = {"DIM", "VAR", "EXPORT", "EQU", "ASSIGN"};

std::string_view TextOf(const char* text) {
  return text == nullptr ? std::string_view() : text;
}

}  // namespace

CKVL::CKVL(CEngineOwner* pParent, const char* pszTableName, EAudience audience)
    : m_pParent(pParent) {
  m_state.m_pOwner = pParent;
  m_state.m_pOutput = this;
  m_state.m_pPrints = &m_prints;
  if (TextOf(pszTableName).empty()) return;
  m_pTags = std::make_unique<CTagExchange>(pszTableName, audience, *pParent);
  if (!m_pTags->IsOpen()) m_pTags.reset();
  m_state.m_pTags = m_pTags.get();
}

CKVL::~CKVL() = default;

int32_t CKVL::LoadScript(const char* pszPath) try {
  std::string text;
  return ReadScript(pszPath, text) ? LoadText(text) : 0;
} catch (const std::bad_alloc&) {
  return 0;
}

int32_t CKVL::LoadText(std::string_view text) try {
  Unbind();
  CSectionReader sections;
  std::string main;
  while (!text.empty() && Runs()) {
    const std::string_view line = CSectionReader::Trim(m_saLine.emplace_back(TakeChunk(text)));
    if (!sections.IsMain(line)) {
      SplitDeclaration(line, m_saToken);
      _CompileVariableScript();
      m_saToken.clear();
    } else if (NormaliseMain(line, main)) {
      m_saMain.push_back(main);
    }
  }
  return Runs() ? static_cast<int32_t>(m_saMain.size()) : 0;
} catch (const std::bad_alloc&) {
  return 0;
}

int32_t CKVL::_CompileVariableScript() {
  if (m_saToken.empty()) return -1;
  Unbind();
  const int statement = FindStatement(m_saToken[0], kStatements);
  m_saToken.resize(3);  // three is what a statement has; what is not on the line is empty
  Declare(statement);
  return 0;
}

void CKVL::Declare(int statement) {
  const std::string& name = m_saToken[1];
  const std::string& value = m_saToken[2];
  switch (statement) {
    case kStatementDim:
      m_listVariable.DeclareDim(name, ParseInteger(value));
      break;
    case kStatementVar:
      m_listVariable.DeclareVar(name, value);
      break;
    case kStatementEqu:
      m_listVariable.DeclareText(kEqu, name, QuotedText(value));
      break;
    case kStatementAssign:
      m_listVariable.DeclareText(kAssign, name, QuotedText(value));
      break;
    case kStatementExport:
      if (const CVariableTable* variable = m_listVariable.Find(name)) {
        CExportTable& record = m_listExport.emplace_back();
        record = {variable->m_nKind, variable->m_nType, variable->m_nSize, {}};
        std::copy_n(variable->m_value, sizeof record.m_pValue, record.m_pValue);
      }
      break;
    default:
      break;
  }
}

int32_t CKVL::_CompileMainScript1(int32_t nLines) try {
  Unbind();
  const size_t count = std::min(static_cast<size_t>(std::max(nLines, 0)), m_saMain.size());
  m_listCommand.reserve(m_listCommand.size() + count);
  for (size_t i = 0; i < count && Runs(); ++i) CompileLine(m_saMain[i]);
  if (!Runs()) RemoveCommandTable();  // half a script would do something else than the whole
  return 0;
} catch (const std::bad_alloc&) {
  RemoveCommandTable();
  return 0;
}

void CKVL::CompileLine(const std::string& line) {
  std::vector<std::string> tokens;
  SplitMain(line, tokens);
  if (tokens.size() == 1) {
    std::string_view name = tokens[0];
    if (name.back() != ':') return;
    name.remove_suffix(1);
    CLabelTable* label = m_listLabel.Append(name);
    if (label != nullptr) label->m_nIndex = static_cast<int32_t>(m_listCommand.size());
    return;
  }
  FillCommand(tokens, m_listCommand.emplace_back());
}

void CKVL::Unbind() {
  m_steps.clear();
  m_pBinder.reset();
  if (m_pTags != nullptr) m_pTags->DropSlotsFrom(0);
}

bool CKVL::Runs() const {
  return m_pParent->m_bRun.load(std::memory_order_relaxed) != 0;
}

// False, with nothing bound, if the run flag has fallen.
bool CKVL::Bind() {
  m_pBinder = std::make_unique<CBinder>(m_listVariable);
  m_steps.resize(m_listCommand.size() + 1);
  for (size_t i = 0; i < m_listCommand.size(); ++i) {
    if (!Runs()) {
      Unbind();
      return false;
    }
    const CCommandTable& command = m_listCommand[i];
    BindStep(*m_pBinder, command, command.m_nCommand, m_steps[i]);
    BindTag(m_steps[i]);
    if (command.m_nCommand < kJP || command.m_nCommand > kJPGE) continue;
    const CLabelTable* label = m_listLabel.Find(command.m_szOperand[0]);
    if (label == nullptr) {  // ends the pass, or goes on with the next instruction
      m_steps[i].m_pJump = command.m_nCommand == kJP ? nullptr : &m_steps[i + 1];
      continue;
    }
    const size_t target = std::min(static_cast<size_t>(label->m_nIndex), m_listCommand.size());
    m_steps[i].m_pJump = &m_steps[target];
  }
  m_steps.back().m_plain = m_steps.back().m_run = EndStep;
  FuseSteps(m_steps.data(), m_listCommand.size());
  return true;
}

// Without a table PUT and GET have no effect; with one, each remembers its tag.
void CKVL::BindTag(CStep& step) {
  if (step.m_nCommand != kPUT && step.m_nCommand != kGET) return;
  if (m_pTags != nullptr) {
    step.m_nNumber = m_pTags->NewSlot();
  } else {
    step.m_run = step.m_plain = SkipStep;
  }
}

int32_t CKVL::Begin(const uint8_t* pInput, int32_t nInputSize) try {
  if (m_listCommand.empty()) return -1;
  if (m_steps.empty() && !Bind()) return 0;
  const bool hasInput = pInput != nullptr && nInputSize > 0;
  m_state.m_pInput = hasInput ? pInput : nullptr;
  m_state.m_nInputSize = hasInput ? nInputSize : 0;
  m_bLimitReached = false;
  if (m_nMaxSteps > 0) {
    m_bLimitReached = RunLimited();
  } else {
    RunFreely();
  }
  m_state.m_pInput = nullptr;
  m_state.m_nInputSize = 0;
  return 0;
} catch (const std::bad_alloc&) {
  Unbind();
  return -1;
}

void CKVL::RunFreely() {
  const CStep* step = m_steps.data();
  const std::atomic<uint32_t>& run = m_pParent->m_bRun;
  while (step != nullptr && run.load(std::memory_order_relaxed) != 0) {
    step = step->m_run(*step, m_state);
  }
}

// One instruction at a time, so that every one of a row counts.
bool CKVL::RunLimited() {
  const CStep* step = m_steps.data();
  const CStep* const end = &m_steps.back();
  for (int64_t steps = 0; step != nullptr && step != end; ++steps) {
    if (m_pParent->m_bRun.load(std::memory_order_relaxed) == 0) return false;
    if (steps == m_nMaxSteps) return true;
    step = step->m_plain(*step, m_state);
  }
  return false;
}

bool CKVL::BeginIdle() {
  const uint16_t compare = m_state.m_wCompare;
  const int32_t interval = m_state.m_nOutInterval;
  m_listVariable.SaveTo(m_idleImage);
  m_state.m_bTouched = false;
  Begin(nullptr, 0);
  return !m_state.m_bTouched && !m_bLimitReached && m_pParent->m_bRun.load() != 0 &&
         compare == m_state.m_wCompare && interval == m_state.m_nOutInterval &&
         m_listVariable.Equals(m_idleImage);
}

void CKVL::SetListenObject(CRS232Ctrl* pSerial) {
  SetLine(kMediaSerial, pSerial);
}

void CKVL::SetListenObject(CClientSock* pSocket) {
  SetLine(kMediaTcp, pSocket);
}

void CKVL::SetLine(uint32_t nInterface, CLine* pLine) {
  (nInterface == kMediaSerial ? m_pSerial : m_pSocket) = pLine;
}

const CVariableTable* CKVL::FindVariableTable(const char* pszName) const {
  return m_listVariable.Find(TextOf(pszName));
}

const CLabelTable* CKVL::FindLabelTable(const char* pszName) const {
  return m_listLabel.Find(TextOf(pszName));
}

int32_t CKVL::GetKeywordMacro(std::string_view strWord) const {
  return KeywordNumber(strWord);
}

int32_t CKVL::RemoveVariableTable() {
  Unbind();
  m_listVariable.Clear();
  return 0;
}

int32_t CKVL::RemoveCommandTable() {
  Unbind();
  m_listCommand.clear();
  return 0;
}

int32_t CKVL::RemoveLabelTable() {
  Unbind();
  m_listLabel.Clear();
  return 0;
}

int32_t CKVL::RemoveExportTable() {
  m_listExport.clear();
  return 0;
}

int32_t CKVL::RemovePrintMessage() {
  m_prints.Clear();
  return 0;
}

int32_t CKVL::GetVariableType(const char* pszOperand) {
  const std::string_view text = TextOf(pszOperand);
  const CVariableTable* variable = m_listVariable.Find(text.substr(0, text.find('[')));
  return variable == nullptr ? -1 : variable->m_nKind;
}

double CKVL::GetBufferValue(const char* pszOperand) {
  CBinder binder(m_listVariable);
  return ReadNumber(binder.BindValue(TextOf(pszOperand)));
}

uint8_t* CKVL::GetBufferPointer(const char* pszOperand) {
  CBinder binder(m_listVariable);
  const std::span<uint8_t> place = ResolvePlace(binder.BindPlace(TextOf(pszOperand)));
  return place.empty() ? nullptr : place.data();
}

void CKVL::SetBufferValue(const char* pszOperand, TAG_TYPE /*type*/, const uint8_t* pBytes,
                          int32_t nBytes) {
  CBinder binder(m_listVariable);
  const std::span<uint8_t> place = ResolvePlace(binder.BindPlace(TextOf(pszOperand)));
  if (place.empty() || pBytes == nullptr || nBytes <= 0) return;
  std::copy_n(pBytes, std::min(static_cast<size_t>(nBytes), place.size()), place.data());
}

double CKVL::CalcOperation(const char* pszOperand, const char* pszBracket) {
  CBinder binder(m_listVariable);
  return EvaluateIndex(
      binder.BindExpression(TextOf(pszOperand), static_cast<size_t>(pszBracket - pszOperand)));
}

double CKVL::GetOperandValue(const char* pszOperand) {
  CBinder binder(m_listVariable);
  return ReadNumber(binder.BindNumber(TextOf(pszOperand)));
}

void CKVL::StoreScalar(const CVariableTable& variable, double value) {
  if (variable.m_nKind == kVar) kvl::StoreScalar(CBinder::BindWhole(variable), value);
}

int32_t CKVL::TranslateString(const uint8_t* pRaw, uint8_t* pOutput, int32_t nRaw) {
  return nRaw < 1 ? 0 : kvl::TranslateString(AsText(pRaw, nRaw), pOutput);
}

char CKVL::GetCode16(char high, char low) {
  return static_cast<char>(kvl::GetCode16(high, low));
}

int32_t CKVL::Hex2Dec(const char* pszText) {
  return kvl::Hex2Dec(TextOf(pszText));
}

int32_t CKVL::Bin2Dec(const char* pszText) {
  return kvl::Bin2Dec(TextOf(pszText));
}

void CKVL::SendString(const uint8_t* pBytes, int32_t nBytes, int32_t nInterval) {
  if (nBytes <= 0) return;
  const std::span bytes(pBytes, static_cast<size_t>(nBytes));
  m_pParent->OnOut(bytes, nInterval);
  size_t sent = 0;
  if (nInterval == 0) {
    sent = WriteLine(bytes);
  } else {
    for (; sent < bytes.size() && m_pParent->m_bRun != 0; ++sent) {
      if (WriteLine(bytes.subspan(sent, 1)) == 0) m_pParent->OnUnsent(bytes.subspan(sent, 1));
      m_pParent->Pause(nInterval, EPause::Pacing);
    }
  }
  if (sent < bytes.size()) m_pParent->OnUnsent(bytes.subspan(sent));
}

// Gives how many bytes the line has taken.
size_t CKVL::WriteLine(std::span<const uint8_t> bytes) try {
  CLine* const line = m_nInterface == kMediaSerial ? m_pSerial
                      : m_nInterface == kMediaTcp  ? m_pSocket
                                                   : nullptr;
  if (line == nullptr || !line->IsOpen()) return 0;
  const int32_t taken = line->Write(bytes.data(), static_cast<int32_t>(bytes.size()));
  return std::min(static_cast<size_t>(std::max(taken, 0)), bytes.size());
} catch (...) {  // whatever an owner's line throws, the script goes on
  return 0;
}

void CKVL::Execute(int32_t nCommand, const CCommandTable& command) {
  CBinder binder(m_listVariable);
  CStep step[2];
  const size_t slots = m_pTags == nullptr ? 0 : m_pTags->SlotCount();
  BindStep(binder, command, nCommand, step[0]);
  BindTag(step[0]);
  step[0].m_plain(step[0], m_state);
  if (m_pTags != nullptr) m_pTags->DropSlotsFrom(slots);
}

int32_t CKVL::_Jp(const CCommandTable* pCommand) {
  const CLabelTable* label = m_listLabel.Find(pCommand->m_szOperand[0]);
  return label == nullptr ? -1 : label->m_nIndex;
}

int32_t CKVL::_Jp_condition(const CCommandTable* pCommand, int32_t nCommand) {
  return (m_state.m_wCompare & JumpMask(nCommand)) == 0 ? -1 : _Jp(pCommand);
}

}  // namespace kvl
