// The plain records of a loaded script.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>

namespace kvl {

// The declaring statement of a variable, as CVariableTable::m_nKind holds it.
enum EVariableKind : uint8_t { kDim = 1, kVar = 2, kEqu = 3, kAssign = 4 };

// The element type, as CVariableTable::m_nType holds it.
enum EElementType : int8_t { kNoType = 0, kByte = 1, kInteger = 4, kDouble = 6 };

constexpr int32_t kMaxName = 31;     // bytes of a variable's or label's name
constexpr int32_t kMaxOperand = 79;  // bytes of an operand text, quote marks included
constexpr int32_t kMaxOperands = 4;  // operand texts that a record has room for

// One variable.
struct CVariableTable {
  uint8_t m_nKind;
  char m_szName[kMaxName + 1];
  int32_t m_nSize;  // bytes of the value; of a text without its NUL
  int8_t m_nType;
  // The value of a VAR, or the pointer to the block of any other kind. A block is owned by the
  // list that holds the record; that of an EQU or ASSIGN has a NUL byte behind its m_nSize bytes.
  alignas(8) uint8_t m_value[8];
};

// One compiled instruction.
struct CCommandTable {
  int32_t m_nLine;     // 1-based source line in the verifier; 0 in the engine
  int32_t m_nCommand;  // instruction number, or 0 for a record that is passed over
  uint8_t m_nOperand;  // number of operands on the line, also of those without room here
  char m_szOperand[kMaxOperands][kMaxOperand + 1];
};

// One label: a name and the number of instructions in front of it.
struct CLabelTable {
  char m_szLabel[kMaxName + 1];
  int32_t m_nIndex;
};

// What an EXPORT line copies of a variable. m_pValue holds the first bytes of its m_value; they
// are no owner of a block.
struct CExportTable {
  uint8_t m_nKind;
  int8_t m_nType;
  int32_t m_nSize;
  uint8_t m_pValue[sizeof(void*)];
};

// Loads and stores of values that need not be aligned.
template <class T>
T Load(const uint8_t* from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return value;
}
template <class T>
void Store(uint8_t* to, T value) {
  std::memcpy(to, &value, sizeof value);
}

inline uint8_t* BlockOf(const CVariableTable& variable) {
  return Load<uint8_t*>(variable.m_value);
}

}  // namespace kvl
