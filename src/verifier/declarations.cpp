// The declaration section: VAR, DIM, EQU, ASSIGN and EXPORT, and the dispatch of all statements.
#include <new>

#include "script/decimal.h"
#include "verifier/KVLSyntax.h"

namespace kvl {
namespace {

enum EStatement {
  kStatementDim,
  kStatementVar,
  kStatementExport,
  kStatementEqu,
  kStatementOpen,
  kStatementTableName,
  kStatementAssign,
};
// In the order in which they are looked for.
constexpr std::string_view kStatements[] = {"DIM",  "VAR",        "EXPORT", "EQU",
                                            "OPEN", "TABLE_NAME", "ASSIGN"};

constexpr size_t kMaxTokens = 3;

}  // namespace

int32_t CKVLSyntax::_CompileVariableScript(int32_t nIndex) try {
  if (m_saToken.empty()) return 0;
  const int32_t line = nIndex + 1;
  if (m_saToken.size() > kMaxTokens) {
    RefuseDeclaration(EMessage::BadStatement, line);
    return -1;
  }
  return CarryOut(FindStatement(m_saToken[0], kStatements), line) ? 0 : -1;
} catch (const std::bad_alloc&) {
  RunOutOfMemory();
  return -1;
}

bool CKVLSyntax::CarryOut(int statement, int32_t nLine) {
  switch (statement) {
    case kStatementDim:
      return DeclareDim(nLine);
    case kStatementVar:
      return DeclareVar(nLine);
    case kStatementExport:
      return Export(nLine);
    case kStatementEqu:
      return DeclareText(kEqu, nLine);
    case kStatementOpen:
      return Open(nLine);
    case kStatementTableName:
      return NameTable(nLine);
    case kStatementAssign:
      return DeclareText(kAssign, nLine);
    default:
      return RefuseDeclaration(EMessage::BadStatementKind, nLine);
  }
}

bool CKVLSyntax::CheckArguments(int32_t nLine) {
  if (m_saToken.size() != 3) return RefuseDeclaration(EMessage::BadArguments, nLine);
  // The reader yields no empty token; a caller of its own might.
  if (m_saToken[1].empty()) return RefuseDeclaration(EMessage::EmptyArgument, nLine, 0);
  if (m_saToken[2].empty()) return RefuseDeclaration(EMessage::EmptyArgument, nLine, 1);
  return true;
}

bool CKVLSyntax::CheckForm(int32_t nLine) {
  if (TypeOfSuffix(m_saToken[1].back()) != kNoType) return true;
  return RefuseDeclaration(EMessage::BadForm, nLine, 0);
}

bool CKVLSyntax::DeclareDim(int32_t nLine) {
  if (!CheckArguments(nLine)) return false;
  const int32_t count = ParseInteger(m_saToken[2]);
  if (count <= 0) return RefuseDeclaration(EMessage::BufferTooSmall, nLine, 1);
  if (!CheckForm(nLine)) return false;
  const std::string_view name = m_saToken[1];
  const int64_t bytes = int64_t{count} * ElementSize(TypeOfSuffix(name.back()));
  return Declare({kDim, name.substr(0, name.size() - 1), EMessage::Duplicate, bytes}, nLine);
}

bool CKVLSyntax::DeclareVar(int32_t nLine) {
  if (!CheckArguments(nLine) || !CheckForm(nLine)) return false;
  const std::string_view name = m_saToken[1];
  return Declare({kVar, name.substr(0, name.size() - 1), EMessage::Duplicate, 0}, nLine);
}

bool CKVLSyntax::DeclareText(EVariableKind kind, int32_t nLine) {
  if (m_saToken.size() != 3) return RefuseDeclaration(EMessage::BadArguments, nLine);
  const auto bytes = static_cast<int64_t>(QuotedText(m_saToken[2]).size());
  return Declare({kind, m_saToken[1], EMessage::DuplicateText, bytes}, nLine);
}

bool CKVLSyntax::Declare(const CDeclaration& declaration, int32_t nLine) {
  const std::string_view name = declaration.m_name;
  if (name.size() > static_cast<size_t>(kMaxName)) {
    return RefuseDeclaration(EMessage::NameTooLong, nLine, 0, name);
  }
  if (m_listVariable.Find(name) != nullptr) {
    return RefuseDeclaration(declaration.m_duplicate, nLine, 0);
  }
  if (!FitsStorage(declaration.m_nBlockBytes, m_nBlockBytes)) {
    return RefuseDeclaration(EMessage::BufferTooBig, nLine, 1);
  }
  m_nBlockBytes += declaration.m_nBlockBytes;
  CVariableTable* record = m_listVariable.Append(name);
  record->m_nKind = declaration.m_kind;
  record->m_nType = declaration.m_kind == kEqu || declaration.m_kind == kAssign ? kByte : kNoType;
  return true;
}

bool CKVLSyntax::Export(int32_t nLine) {
  if (m_saToken.size() != 2) return RefuseDeclaration(EMessage::BadArguments, nLine);
  if (m_listVariable.Find(m_saToken[1]) != nullptr) return true;
  return RefuseDeclaration(EMessage::ExportNotFound, nLine, 0);
}

}  // namespace kvl
