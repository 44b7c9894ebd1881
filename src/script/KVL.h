// CKVL, the run-time engine of the KVL script language.
//
// One object serves one decode session: it loads a script once and then runs it from its first
// instruction over each batch of received bytes. It trusts what the verifier passed and reports
// nothing: a fault in a script means that a step has no effect or that a value is 0. Whatever the
// script and the bytes are, nothing outside a variable is read or written.
//
// Order of use: constructor; SetListenObject and SetInterface; LoadScript, _CompileMainScript1,
// then Begin any number of times; destructor. When the owner's run flag falls each of them ends
// early; an object that was loading then has no script.
// Threads: one thread at a time, apart from Prints(), which any thread may use.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "platform/named_object.h"
#include "script/declarations.h"
#include "script/engine_owner.h"
#include "script/print_list.h"
#include "script/records.h"
#include "script/step.h"

namespace kvl {

class CClientSock;
class CLine;
class CRS232Ctrl;

// What GET announces to SetBufferValue. It takes no part in the copy.
enum TAG_TYPE { TAG_BYTE = 1, TAG_INTEGER = 2, TAG_FLOAT = 3 };

class KVL_API CKVL : private CLineOutput {
 public:
  // `pParent` outlives the engine. With a table name the engine opens that table of the shared
  // store, among the tables of `audience`; without one, or if it can't be opened, PUT and GET have
  // no effect.
  CKVL(CEngineOwner* pParent, const char* pszTableName, EAudience audience = EAudience::kOwner);
  virtual ~CKVL();
  CKVL(const CKVL&) = delete;
  CKVL& operator=(const CKVL&) = delete;

  // Reads a script: carries out its declarations and collects its main lines. Returns their
  // number; 0 if the file can't be read or has none. Once for each object.
  int32_t LoadScript(const char* pszPath);
  // The same of a script in memory.
  int32_t LoadText(std::string_view text);
  // NOLINTBEGIN(bugprone-reserved-identifier): these names are the language's own.
  // Turns `nLines` main lines into instructions and labels. Always 0.
  int32_t _CompileMainScript1(int32_t nLines);
  // Carries out the declaration whose tokens stand in m_saToken: -1 if there are none, else 0.
  int32_t _CompileVariableScript();
  // NOLINTEND(bugprone-reserved-identifier)

  // Runs one pass over a batch, which may be null and 0 and must stay valid and unchanged until
  // the call returns. 0 a pass was run; -1 there is no instruction.
  int32_t Begin(const uint8_t* pInput, int32_t nInputSize);

  // Runs one pass over an empty batch. True if the pass ran to its end, changed nothing and
  // touched nothing outside, so that another one would do exactly the same again.
  bool BeginIdle();

  // Ends every pass after `nMaxSteps` instructions; 0 means no limit.
  void SetMaxSteps(int64_t nMaxSteps) { m_nMaxSteps = nMaxSteps; }
  // Whether the last pass ended at the limit with an instruction due.
  bool LimitReached() const { return m_bLimitReached; }

  // The line for OUT, borrowed: it outlives the engine or is taken back with null. SetLine is for
  // a line of the owner's own.
  void SetListenObject(CRS232Ctrl* pSerial);
  void SetListenObject(CClientSock* pSocket);
  void SetLine(uint32_t nInterface, CLine* pLine);

  // Milliseconds behind each byte of OUT; 0 sends a whole text in one write.
  void SetOutInterval(int32_t nInterval) { m_state.m_nOutInterval = nInterval; }
  int32_t GetOutInterval() const { return m_state.m_nOutInterval; }
  // The line in use: kMediaSerial or kMediaTcp.
  void SetInterface(uint32_t nInterface) { m_nInterface = nInterface; }
  uint32_t GetInterface() const { return m_nInterface; }

  // Look-up by exact name; of two records with one name the first. Null if there is none. The
  // records belong to the engine.
  const CVariableTable* FindVariableTable(const char* pszName) const;
  const CLabelTable* FindLabelTable(const char* pszName) const;
  // 1 to 31, or 0 if the word is no keyword.
  int32_t GetKeywordMacro(std::string_view strWord) const;
  const std::deque<CVariableTable>& Variables() const { return m_listVariable.Records(); }
  const std::vector<CCommandTable>& Commands() const { return m_listCommand; }
  const std::deque<CLabelTable>& Labels() const { return m_listLabel.Records(); }
  const std::vector<CExportTable>& Exports() const { return m_listExport; }
  const std::vector<std::string>& MainLines() const { return m_saMain; }
  // Whether the engine has a table.
  bool HasTable() const { return m_pTags != nullptr; }
  uint16_t GetCompare() const { return m_state.m_wCompare; }
  CPrintList& Prints() { return m_prints; }

  // Each removes and destroys every record of its list; always 0.
  int32_t RemoveVariableTable();
  int32_t RemoveCommandTable();
  int32_t RemoveLabelTable();
  int32_t RemoveExportTable();
  int32_t RemovePrintMessage();

  // Operand texts. Each call binds the text and then does what the instructions do.
  // The kind of the variable, 1 to 4, or -1.
  int32_t GetVariableType(const char* pszOperand);
  // The value of NAME or NAME[index], the index counting elements; 0 if there is none.
  double GetBufferValue(const char* pszOperand);
  // The address of NAME or NAME[index], the index counting bytes; null if there is none.
  uint8_t* GetBufferPointer(const char* pszOperand);
  // Copies `nBytes` bytes to that address, cut at the end of the variable.
  void SetBufferValue(const char* pszOperand, TAG_TYPE type, const uint8_t* pBytes, int32_t nBytes);
  // The value of the index expression behind `pszBracket`, the first [ of the operand text.
  double CalcOperation(const char* pszOperand, const char* pszBracket);
  // The value of a numeric operand: literal of any base, variable or element.
  double GetOperandValue(const char* pszOperand);
  // Stores a double into a scalar by its type; nothing if it is no scalar.
  void StoreScalar(const CVariableTable& variable, double value);

  // Escapes and digits; see escapes.h.
  static int32_t TranslateString(const uint8_t* pRaw, uint8_t* pOutput, int32_t nRaw);
  static char GetCode16(char high, char low);
  static int32_t Hex2Dec(const char* pszText);
  static int32_t Bin2Dec(const char* pszText);

  // Puts bytes on the line in use, at once or with a pause of `nInterval` ms behind each byte. A
  // failure on the line is none of the script's.
  void SendString(const uint8_t* pBytes, int32_t nBytes, int32_t nInterval) override;

// Instruction handlers: each runs one record by itself, whatever its number says.
// NOLINTBEGIN(bugprone-reserved-identifier): these names are the language's own.
#define KVL_DECLARE(handler, number)            \
  void handler(const CCommandTable* pCommand) { \
    Execute(number, *pCommand);                 \
  }
  KVL_HANDLERS(KVL_DECLARE)
#undef KVL_DECLARE
  // The index of the next instruction, or -1: unknown label, or condition not met.
  int32_t _Jp(const CCommandTable* pCommand);
  int32_t _Jp_condition(const CCommandTable* pCommand, int32_t nCommand);
  // NOLINTEND(bugprone-reserved-identifier)

  std::vector<std::string> m_saToken;  // what _CompileVariableScript carries out

 private:
  void Execute(int32_t nCommand, const CCommandTable& command);
  void CompileLine(const std::string& line);
  void Declare(int statement);
  bool Runs() const;
  bool Bind();
  void BindTag(CStep& step);
  void Unbind();
  size_t WriteLine(std::span<const uint8_t> bytes);
  bool RunLimited();
  void RunFreely();

  CEngineOwner* const m_pParent;
  uint32_t m_nInterface = 1;
  CLine* m_pSerial = nullptr;
  CLine* m_pSocket = nullptr;
  CRunState m_state;
  CPrintList m_prints;
  std::unique_ptr<CTagExchange> m_pTags;
  std::vector<std::string> m_saLine;
  std::vector<std::string> m_saMain;
  CVariableStorage m_listVariable;
  std::vector<CCommandTable> m_listCommand;
  CLabelList m_listLabel;
  std::vector<CExportTable> m_listExport;
  // The bound form of the script; empty until the first pass, and after a change of the tables.
  std::unique_ptr<CBinder> m_pBinder;
  std::vector<CStep> m_steps;
  int64_t m_nMaxSteps = 0;
  bool m_bLimitReached = false;
  std::vector<uint8_t> m_idleImage;
};

}  // namespace kvl
