// Operands, bound once after a script is loaded: every name is looked up, every number read and
// every index expression taken apart then, so that running an instruction does none of that.
//
// What a script observes stays as if each text were resolved anew at every use: of two variables
// with one name the first counts, an unknown name reads 0 or has no place, an index sees the
// current values of its variables, and nothing outside a variable is ever read or written.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "script/decimal.h"
#include "script/declarations.h"
#include "script/records.h"

namespace kvl {

struct CIndexTerm;

// A left-to-right sum of signed terms.
using CIndexExpression = std::vector<CIndexTerm>;

enum class EOperand : uint8_t {
  Nothing,  // unknown name, or a form without meaning in this place: no place, the number 0
  Literal,  // m_number
  Scalar,   // the value at m_pData, of type m_type; an element whose index is fixed is one too
  Element,  // one element of the m_nSize bytes at m_pData
};

enum class EIndex : uint8_t {
  None,        // m_pData is the place already
  Scalar,      // the integer at m_pIndex plus m_nOffset, which a % variable as index gives
  Expression,  // m_pExpression
};

// One bound operand. Plain data: it owns nothing.
struct CBoundOperand {
  EOperand m_kind = EOperand::Nothing;
  EElementType m_type = kNoType;
  EIndex m_index = EIndex::None;
  int32_t m_nSize = 0;    // bytes at m_pData
  int32_t m_nOffset = 0;  // of the index; in elements for a number, in bytes for a place
  int32_t m_nNumber = 0;  // m_number, narrowed
  uint8_t* m_pData = nullptr;
  const uint8_t* m_pIndex = nullptr;
  const CIndexExpression* m_pExpression = nullptr;
  double m_number = 0;
};

struct CIndexTerm {
  bool m_bMinus;
  CBoundOperand m_value;
};

double EvaluateIndex(const CIndexExpression& expression);
int32_t NarrowedIndex(const CIndexExpression& expression);

// Of an operand with an index, which is at most of the kind TMost.
template <EIndex TMost = EIndex::Expression>
int32_t IndexOf(const CBoundOperand& operand) {
  if constexpr (TMost == EIndex::Expression) {
    if (operand.m_index == EIndex::Expression) return NarrowedIndex(*operand.m_pExpression);
  }
  // Wraps as the narrowing of the exact sum does.
  return static_cast<int32_t>(Load<uint32_t>(operand.m_pIndex) +
                              static_cast<uint32_t>(operand.m_nOffset));
}

// The number that an operand bound by BindNumber, BindValue or BindComparand has now.
double ReadNumber(const CBoundOperand& operand);

// The bytes from a place bound by BindPlace to the end of its variable; empty, with a null
// pointer, if there is no such place.
template <EIndex TMost = EIndex::Expression>
std::span<uint8_t> ResolvePlace(const CBoundOperand& place) {
  const auto size = static_cast<uint32_t>(place.m_nSize);
  if (place.m_index == EIndex::None) return {place.m_pData, size};
  const auto index = static_cast<uint32_t>(IndexOf<TMost>(place));
  if (index >= size) return {};  // as is a negative one
  return {place.m_pData + index, size - index};
}

// Binds operand texts to the variables of one script. The operands stay valid as long as the
// binder and the variables do.
class CBinder {
 public:
  explicit CBinder(const CVariableStorage& variables) : m_variables(variables) {}

  // By plain name: a scalar with a known type, a buffer, any variable's bytes.
  CBoundOperand BindScalar(std::string_view text) const;
  CBoundOperand BindBuffer(std::string_view text) const;
  const CVariableTable* FindVariable(std::string_view text) const { return m_variables.Find(text); }
  // All bytes of a variable that was found.
  static CBoundOperand BindWhole(const CVariableTable& variable);

  // Where NAME or NAME[index] lies; the index counts bytes.
  CBoundOperand BindPlace(std::string_view text);
  // The value of NAME or NAME[index]; the index counts elements.
  CBoundOperand BindValue(std::string_view text);
  // A literal of any base, or a value.
  CBoundOperand BindNumber(std::string_view text);
  // The second operand of CMP: a value if it starts with a capital, otherwise a decimal literal.
  CBoundOperand BindComparand(std::string_view text);
  // A count: a whole number if the text starts with a digit, otherwise a value.
  CBoundOperand BindCount(std::string_view text);

  // The index expression that stands in `text` behind its `[`, at `bracket`, less the last byte.
  CIndexExpression BindExpression(std::string_view text, size_t bracket);

  // Bytes of a quoted text; the binder keeps them.
  CBoundOperand BindText(std::string bytes);

 private:
  // Binds an index that counts elements of `nElement` bytes.
  void BindIndex(std::string_view text, size_t bracket, int32_t nElement, CBoundOperand& operand);

  const CVariableStorage& m_variables;
  std::deque<CIndexExpression> m_expressions;
  std::deque<std::string> m_texts;
};

CBoundOperand LiteralOperand(double number);

}  // namespace kvl
