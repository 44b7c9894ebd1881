#include "script/operand.h"

#include <cmath>

#include "script/escapes.h"

namespace kvl {
namespace {

// The tokens of an index expression: the texts between the signs, empty ones included, and each
// sign by itself. Brackets are not counted, so that a sign inside a nested index splits too.
std::vector<std::string_view> SplitExpression(std::string_view expression) {
  std::vector<std::string_view> tokens;
  size_t start = 0;
  for (size_t i = 0; i < expression.size(); ++i) {
    if (expression[i] != '+' && expression[i] != '-') continue;
    tokens.push_back(expression.substr(start, i - start));
    tokens.push_back(expression.substr(i, 1));
    start = i + 1;
  }
  if (start < expression.size()) tokens.push_back(expression.substr(start));
  return tokens;
}

bool IsExactInteger(double value) {
  return std::abs(value) < 2147483648.0 && value == std::trunc(value);
}

double ReadTyped(const uint8_t* data, EElementType type) {
  switch (type) {
    case kByte:
      return Load<int8_t>(data);
    case kInteger:
      return Load<int32_t>(data);
    case kDouble:
      return Load<double>(data);
    default:
      return 0;
  }
}

}  // namespace

double EvaluateIndex(const CIndexExpression& expression) {
  double sum = 0;
  for (const CIndexTerm& term : expression) {
    const double value = ReadNumber(term.m_value);
    sum = term.m_bMinus ? sum - value : sum + value;
  }
  return sum;
}

int32_t NarrowedIndex(const CIndexExpression& expression) {
  return NarrowToInt32(EvaluateIndex(expression));
}

double ReadNumber(const CBoundOperand& operand) {
  switch (operand.m_kind) {
    case EOperand::Literal:
      return operand.m_number;
    case EOperand::Scalar:
      return ReadTyped(operand.m_pData, operand.m_type);
    case EOperand::Element: {
      const int32_t size = ElementSize(operand.m_type);
      const int32_t index = IndexOf(operand);
      if (size == 0 || index < 0 || index >= operand.m_nSize / size) return 0;
      return ReadTyped(operand.m_pData + int64_t{index} * size, operand.m_type);
    }
    case EOperand::Nothing:
      break;
  }
  return 0;
}

CBoundOperand LiteralOperand(double number) {
  CBoundOperand operand;
  operand.m_kind = EOperand::Literal;
  operand.m_number = number;
  operand.m_nNumber = NarrowToInt32(number);
  return operand;
}

CBoundOperand CBinder::BindWhole(const CVariableTable& variable) {
  const std::span<uint8_t> bytes = BytesOf(variable);
  CBoundOperand operand;
  operand.m_kind = variable.m_nKind == kVar ? EOperand::Scalar : EOperand::Element;
  operand.m_type = static_cast<EElementType>(variable.m_nType);
  operand.m_pData = bytes.data();
  operand.m_nSize = static_cast<int32_t>(bytes.size());
  return operand;
}

CBoundOperand CBinder::BindScalar(std::string_view text) const {
  const CVariableTable* variable = m_variables.Find(text);
  return variable == nullptr || variable->m_nKind != kVar ? CBoundOperand() : BindWhole(*variable);
}

CBoundOperand CBinder::BindBuffer(std::string_view text) const {
  const CVariableTable* variable = m_variables.Find(text);
  return variable == nullptr || variable->m_nKind != kDim ? CBoundOperand() : BindWhole(*variable);
}

CBoundOperand CBinder::BindPlace(std::string_view text) {
  const size_t bracket = text.find('[');
  const CVariableTable* variable = m_variables.Find(text.substr(0, bracket));
  if (variable == nullptr) return {};
  CBoundOperand operand = BindWhole(*variable);
  if (bracket != text.npos && variable->m_nKind != kVar) BindIndex(text, bracket, 1, operand);
  return operand;
}

CBoundOperand CBinder::BindValue(std::string_view text) {
  const size_t bracket = text.find('[');
  const CVariableTable* variable = m_variables.Find(text.substr(0, bracket));
  if (variable == nullptr || variable->m_nKind == kEqu || variable->m_nKind == kAssign) {
    return LiteralOperand(0);
  }
  CBoundOperand operand = BindWhole(*variable);
  if (variable->m_nKind == kVar) return operand;
  const int32_t element = ElementSize(operand.m_type);
  if (bracket != text.npos) BindIndex(text, bracket, element, operand);
  if (operand.m_index != EIndex::None) return operand;
  if (operand.m_nSize < element) return LiteralOperand(0);
  operand.m_kind = EOperand::Scalar;
  operand.m_nSize = element;
  return operand;
}

CBoundOperand CBinder::BindNumber(std::string_view text) {
  const char first = text.empty() ? '\0' : text.front();
  if (first == '-' || first == '+') return LiteralOperand(ParseDouble(text));
  if (!IsDigit(first)) return BindValue(text);
  if (text.back() == 'H') return LiteralOperand(Hex2Dec(text));
  if (text.back() == 'B') return LiteralOperand(Bin2Dec(text));
  return LiteralOperand(ParseDouble(text));
}

CBoundOperand CBinder::BindComparand(std::string_view text) {
  if (!text.empty() && IsCapital(text.front())) return BindValue(text);
  return LiteralOperand(ParseDouble(text));
}

CBoundOperand CBinder::BindCount(std::string_view text) {
  if (!text.empty() && IsDigit(text.front())) return LiteralOperand(ParseInteger(text));
  return BindValue(text);
}

CIndexExpression CBinder::BindExpression(std::string_view text, size_t bracket) {
  CIndexExpression expression;
  if (text.size() < bracket + 2) return expression;
  bool minus = false;
  for (const std::string_view token :
       SplitExpression(text.substr(bracket + 1, text.size() - bracket - 2))) {
    const char first = token.empty() ? '\0' : token.front();
    if (IsDigit(first)) {
      expression.push_back({minus, LiteralOperand(ParseDouble(token))});
    } else if (IsCapital(first)) {
      expression.push_back({minus, BindValue(token)});
    } else {
      minus = first != '+';  // the last of several signs counts
    }
  }
  return expression;
}

void CBinder::BindIndex(std::string_view text, size_t bracket, int32_t nElement,
                        CBoundOperand& operand) {
  CIndexExpression expression = BindExpression(text, bracket);
  // The two common forms, a number and a % variable with a number, need no list of terms.
  double constant = 0;
  const CBoundOperand* scalar = nullptr;
  bool simple = true;
  for (const CIndexTerm& term : expression) {
    const CBoundOperand& value = term.m_value;
    if (value.m_kind == EOperand::Literal) {
      constant += term.m_bMinus ? -value.m_number : value.m_number;
      simple = simple && (expression.size() == 1 || IsExactInteger(value.m_number));
    } else {
      simple = simple && scalar == nullptr && !term.m_bMinus && value.m_kind == EOperand::Scalar &&
               value.m_type == kInteger;
      scalar = &value;
    }
  }
  if (!simple || (scalar != nullptr && !IsExactInteger(constant))) {
    operand.m_index = EIndex::Expression;
    operand.m_pExpression = &m_expressions.emplace_back(std::move(expression));
    return;
  }
  const int32_t offset = NarrowToInt32(constant);
  if (scalar != nullptr) {
    operand.m_index = EIndex::Scalar;
    operand.m_pIndex = scalar->m_pData;
    operand.m_nOffset = offset;
  } else if (offset >= 0 && offset < operand.m_nSize / nElement) {
    operand.m_pData += int64_t{offset} * nElement;
    operand.m_nSize -= offset * nElement;
  } else {
    operand = {};
  }
}

CBoundOperand CBinder::BindText(std::string bytes) {
  std::string& kept = m_texts.emplace_back(std::move(bytes));
  CBoundOperand operand;
  operand.m_kind = EOperand::Element;
  operand.m_type = kByte;
  operand.m_pData = reinterpret_cast<uint8_t*>(kept.data());
  operand.m_nSize = static_cast<int32_t>(kept.size());
  return operand;
}

}  // namespace kvl
