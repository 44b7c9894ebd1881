// CKVLSyntax, the verifier: every fault of a script, as messages.
//
// It reads a script as the engine does, but where the engine takes what it finds and says nothing,
// the verifier tests every line and every instruction. What it passes, the engine runs. A script
// that passes yields the settings of its line and the name of its table as well.
//
// Order of use, once for each object: LoadScript, _CompileMainScript1 with the number that
// LoadScript returned, _VerifyMainScript; then the list of faults and the header's settings.
// Faults:  they go to the list in the order in which they are found, and end nothing: those of the
//          declarations, those of the main lines, a missing BEGIN or END, those of the operands.
// Threads: one at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"
#include "script/declarations.h"
#include "script/instruction_set.h"
#include "script/records.h"
#include "transport/comm.h"
#include "verifier/messages.h"

namespace kvl {

class CEngineOwner;

// Where a fault stands.
enum class EFaultPlace : uint8_t { Script, Declaration, MainLine };

// One fault. All texts are bytes of code page 949.
struct CFault {
  EMessage m_message;
  EFaultPlace m_place;
  int32_t m_nLine;         // the number in the message: 1-based, -1 without a line, or kNoLine
  int32_t m_nOperand;      // 0-based, the first word not counted; -1 if it is none by itself
  int32_t m_nCommand;      // of the instruction whose use is at fault, else 0
  std::string m_strShown;  // what stands for %s, if the message has one
  std::string m_strText;   // the finished message
};

class KVL_API CKVLSyntax {
 public:
  // `pParent` is kept for the host and never used.
  explicit CKVLSyntax(CEngineOwner* pParent = nullptr);
  virtual ~CKVLSyntax();
  CKVLSyntax(const CKVLSyntax&) = delete;
  CKVLSyntax& operator=(const CKVLSyntax&) = delete;

  // NOLINTBEGIN(bugprone-reserved-identifier): the compile passes have names of the language's own.
  // Reads a script, checks its declarations and header, and collects its main lines. Returns
  // their number, or -1, with a message, if the file can't be read.
  int32_t LoadScript(const char* pszPath);
  // The same of a script in memory.
  int32_t LoadText(std::string_view text);
  // Checks `nLines` main lines and turns them into instructions and labels. Always 0.
  int32_t _CompileMainScript1(int32_t nLines);
  // Checks the operands of every instruction. Always 0.
  int32_t _VerifyMainScript();

  // Checks and carries out the declaration whose tokens stand in m_saToken. `nIndex` is the
  // 0-based number of its chunk. 0 if it is accepted or empty, -1 if it drew a message.
  int32_t _CompileVariableScript(int32_t nIndex);
  // NOLINTEND(bugprone-reserved-identifier)
  std::vector<std::string> m_saToken;

  // The faults in the order in which they were found; none means that the script passed.
  size_t GetErrorCount() const { return m_listError.size(); }
  const CFault& GetError(size_t nIndex) const { return m_listError[nIndex]; }
  const std::vector<CFault>& Errors() const { return m_listError; }

  // The header. CheckCom takes the tokens of an OPEN line, CheckTableName those of a TABLE_NAME
  // line: 0 accepted and stored, -1 a bad keyword or value, -2 set already.
  int32_t CheckCom(std::span<const std::string> saToken);
  int32_t CheckTableName(std::span<const std::string> saToken);
  void GetCom(COMM* pComm) const { *pComm = m_comm; }
  // The length of the name in bytes.
  int32_t GetTableName(std::string& strName) const;
  // 1 if every byte is a digit, also of an empty text, else 0.
  int32_t IsNum(const char* pszText) const;

  // Look-up by exact name; null if there is none. The records belong to the verifier.
  const CVariableTable* FindVariableTable(const char* pszName) const;
  const CLabelTable* FindLabelTable(const char* pszName) const;
  // 1 to 31, or 0 if the word is no keyword.
  int32_t GetKeywordMacro(std::string_view strWord) const;

  // Operand texts. No variable has a value here: each counts as 0.
  // The kind of the variable, 1 to 4, or -1; NAME or NAME[index], the index unlooked at.
  int32_t GetVariableType(const char* pszOperand) const;
  // Always 0. `nFault` is -1 if the name is not declared or no variable can have the index: it is
  // negative or exceeds 32 bits. Else it is 0.
  double GetBufferValue(const char* pszOperand, int32_t& nFault) const;
  // The value of the index expression behind `pszBracket`, the first [ of the operand text.
  double CalcOperation(const char* pszOperand, const char* pszBracket) const;

  // Each removes and destroys every record of its list; always 0. An EXPORT leaves no record here.
  int32_t RemoveVariableTable();
  int32_t RemoveCommandTable();
  int32_t RemoveLabelTable();
  int32_t RemoveExportTable();

  // The script as it was read.
  const std::vector<std::string>& Lines() const { return m_saLine; }
  const std::deque<CVariableTable>& Variables() const { return m_listVariable.Records(); }
  const std::vector<CCommandTable>& Commands() const { return m_listCommand; }
  const std::deque<CLabelTable>& Labels() const { return m_listLabel.Records(); }
  CEngineOwner* GetParent() const { return m_pParent; }

// Checkers: each checks the operands of one record, whatever its number says, and adds at most
// one message.
// NOLINTBEGIN(bugprone-reserved-identifier): these names are the language's own.
#define KVL_CHECKER(checker, number)            \
  void checker(const CCommandTable* pCommand) { \
    CheckCommand(*pCommand, number);            \
  }
  KVL_HANDLERS(KVL_CHECKER)
#undef KVL_CHECKER
  void _Jp(const CCommandTable* pCommand) {
    CheckCommand(*pCommand, kJP);
  }
  void _Jp_condition(const CCommandTable* pCommand, int32_t /*nCommand*/) {
    CheckCommand(*pCommand, kJPE);
  }
  // NOLINTEND(bugprone-reserved-identifier)

 private:
  // What is declared, and how.
  struct CDeclaration {
    EVariableKind m_kind;
    std::string_view m_name;
    EMessage m_duplicate;
    int64_t m_nBlockBytes;
  };

  // Each checks one declaration statement and carries it out; false if it drew a message.
  bool CarryOut(int statement, int32_t nLine);
  bool DeclareDim(int32_t nLine);
  bool DeclareVar(int32_t nLine);
  bool DeclareText(EVariableKind kind, int32_t nLine);
  bool Export(int32_t nLine);
  bool Open(int32_t nLine);
  bool NameTable(int32_t nLine);
  // Tests that several statements share.
  bool CheckArguments(int32_t nLine);
  bool CheckForm(int32_t nLine);
  bool Declare(const CDeclaration& declaration, int32_t nLine);

  void CompileLine(const std::string& line, int32_t nLine);
  void CompileLabel(std::string_view word, int32_t nLine);
  void CheckCommand(const CCommandTable& command, int32_t nNumber);

  // The ways to add a message. Refusing a declaration gives false.
  bool RefuseDeclaration(EMessage message, int32_t nLine, int32_t nOperand = -1,
                         std::string_view shown = {});
  void RefuseLine(EMessage message, int32_t nLine, int32_t nOperand = -1,
                  std::string_view shown = {}, int32_t nCommand = kNoCommand);
  void RefuseScript(EMessage message, int32_t nLine, std::string_view shown = {});
  void Append(CFault fault);
  // A verification that could not be finished refuses the script.
  void RunOutOfMemory();

  CEngineOwner* const m_pParent;
  std::vector<std::string> m_saLine;
  std::vector<std::string> m_saMain;
  std::vector<uint32_t> m_waMainLine;  // of each main line, the 0-based number of its chunk
  std::vector<CFault> m_listError;
  CVariableList m_listVariable;
  int64_t m_nBlockBytes = 0;  // that the declared variables will need at run time
  std::vector<CCommandTable> m_listCommand;
  CLabelList m_listLabel;
  COMM m_comm;
  std::string m_strTableName;
  CFault m_outOfMemory;  // made while there is memory for it
};

}  // namespace kvl
