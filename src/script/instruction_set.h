// The instruction set, written once: whoever needs the instructions expands this table.
//
//   X(number, keyword, family, least operands, most operands, operand forms)
//
// `family` names the binder of the engine (Bind##family), and so the handler behind it. The
// operand counts are what the verifier accepts. In the operand forms one word stands for one
// operand: buffer, scalar, any (variables by plain name), value (number, variable or element),
// place (NAME or NAME[index]), text (quoted), label, digits, mode (T or H), tag (a variable that
// holds a tag's name); `|` separates choices and `?` marks an operand that may be left out.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// clang-format off
#define KVL_INSTRUCTIONS(X)                                             \
  X( 1, IN,      In,      2, 2, "buffer scalar")                        \
  X( 2, OUT,     Out,     1, 1, "text|any")                             \
  X( 3, FIND,    Find,    3, 3, "buffer text scalar")                   \
  X( 4, CMP,     Cmp,     2, 2, "any value")                            \
  X( 5, MOVE,    Move,    2, 2, "scalar value")                         \
  X( 6, DELAY,   Delay,   1, 1, "digits")                               \
  X( 7, SLEEP,   Sleep,   1, 1, "digits")                               \
  X( 8, JP,      Jp,      1, 1, "label")                                \
  X( 9, JPE,     JpIf,    1, 1, "label")                                \
  X(10, JPNE,    JpIf,    1, 1, "label")                                \
  X(11, JPL,     JpIf,    1, 1, "label")                                \
  X(12, JPLE,    JpIf,    1, 1, "label")                                \
  X(13, JPG,     JpIf,    1, 1, "label")                                \
  X(14, JPGE,    JpIf,    1, 1, "label")                                \
  X(15, PRINT,   Print,   1, 2, "text|any mode?")                       \
  X(16, PRINTEX, PrintEx, 1, 2, "text|any mode?")                       \
  X(17, CAT,     Cat,     3, 3, "buffer text|buffer scalar|digits")     \
  X(18, CLEAR,   Clear,   1, 1, "any")                                  \
  X(19, COPY,    Copy,    3, 3, "place text|place digits|value")        \
  X(20, INC,     Inc,     1, 1, "scalar")                               \
  X(21, DEC,     Dec,     1, 1, "scalar")                               \
  X(22, ADD,     Add,     2, 2, "scalar value")                         \
  X(23, SUB,     Sub,     2, 2, "scalar value")                         \
  X(24, SYNC,    Sync,    1, 1, "digits")                               \
  X(25, PUT,     Put,     2, 3, "tag text|value digits|value?")         \
  X(26, GET,     Get,     2, 3, "place tag digits|value?")              \
  X(27, AND,     And,     2, 2, "scalar value")                         \
  X(28, OR,      Or,      2, 2, "scalar value")                         \
  X(29, XOR,     Xor,     2, 2, "scalar value")                         \
  X(30, NOT,     Not,     1, 1, "scalar")                               \
  X(31, CONV,    Conv,    3, 3, "scalar place digits")

// The method that both engines have for an instruction, X(method, number); but for the jumps,
// which lead somewhere.
#define KVL_HANDLERS(X)                                                         \
  X(_In, kIN) X(_Out, kOUT) X(_FindX, kFIND) X(_Cmp, kCMP) X(_MoveX, kMOVE)     \
  X(_Delay, kDELAY) X(_Sleep, kSLEEP) X(_Print, kPRINT) X(_PrintEx, kPRINTEX)   \
  X(_Cat, kCAT) X(_ClearX, kCLEAR) X(_CopyX, kCOPY) X(_Inc, kINC) X(_Dec, kDEC) \
  X(_Add, kADD) X(_Sub, kSUB) X(_Sync, kSYNC) X(_Put, kPUT) X(_Get, kGET)       \
  X(_And, kAND) X(_Or, kOR) X(_Xor, kXOR) X(_Not, kNOT) X(_Conv, kCONV)
// clang-format on

namespace kvl {

struct CCommandTable;

enum ECommand : int32_t {
  kNoCommand = 0,
#define KVL_NUMBER(number, keyword, family, least, most, forms) k##keyword = (number),
  KVL_INSTRUCTIONS(KVL_NUMBER)
#undef KVL_NUMBER
};

struct CInstruction {
  int32_t m_nNumber;
  std::string_view m_keyword;
  uint8_t m_nLeast;
  uint8_t m_nMost;
  std::string_view m_forms;
};

inline constexpr CInstruction kInstructions[] = {
#define KVL_ROW(number, keyword, family, least, most, forms) {number, #keyword, least, most, forms},
    KVL_INSTRUCTIONS(KVL_ROW)
#undef KVL_ROW
};

// The instruction number of an exact keyword, or 0.
int32_t KeywordNumber(std::string_view word);

// Fills a record, but for its line, from the tokens of a main line: keyword and operands. Returns
// the position of the first operand that is too long for the record, else -1. A cut operand would
// mean something else, so that such a record does nothing: its number is 0.
int32_t FillCommand(std::span<const std::string> tokens, CCommandTable& command);

}  // namespace kvl
