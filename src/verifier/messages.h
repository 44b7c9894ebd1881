// Every message of the verifier, written once, in Korean and in English.
//
//   X(id, Korean text, English text)
//
// Hosts get the Korean text, behind "error : line %d, " and in code page 949: these texts are an
// interface and stay letter for letter. `%s` stands for bytes of the script. The English text is
// for the people at the command line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/api.h"

// clang-format off
#define KVL_USAGE_MESSAGE(X, word) \
  X(word##Usage, "'" #word "' 명령어 사용이 잘못되었습니다...", "'" #word "' is used wrongly")
#define KVL_FIRST_MESSAGE(X, word) \
  X(word##First, "'" #word "' 명령에서 첫번째 인자는 변수이어야 합니다...", \
    "the first operand of '" #word "' must be a variable")

#define KVL_MESSAGES(X) \
  /* the file as a whole */ \
  X(FileUnreadable,    "'%s' 파일을 읽을 수가 없습니다...", "the file '%s' can't be read") \
  X(NoBegin,           "시작부분'BEGIN'을 찾을수 없습니다...", "the script has no 'BEGIN:'") \
  X(NoEnd,             "종료부분'END'를 찾을수 없습니다...", "the script has no 'END:'") \
  X(OutOfMemory,       "메모리가 부족합니다...", "there is not enough memory to verify the script") \
  /* declarations */ \
  X(BadStatement,      "구문에 오류가 있습니다...", "a declaration has at most three words") \
  X(BadStatementKind,  "잘못된 변수형이 사용되었습니다...", "unknown kind of declaration") \
  X(BadArguments,      "인수사용이 잘못되었습니다...", "wrong number of words in the declaration") \
  X(EmptyArgument,     "syntax error...", "a word of the declaration is empty") \
  X(BufferTooSmall,    "버퍼 크기가 너무 작습니다...", "the size of a buffer must be above 0") \
  X(BufferTooBig,      "버퍼 크기가 너무 큽니다...", "the size of the buffer exceeds the limit") \
  X(BadForm,           "변수 형태가 잘못 지정되었습니다...", "the name must end in '$', '%' or '#'") \
  X(NameTooLong,       "'%s' 변수명이 너무 깁니다...", "the name '%s' is longer than 31 bytes") \
  X(Duplicate,         "중복된 변수가 사용 되었습니다...", "the variable is declared already") \
  X(DuplicateText,     "중복된 변수가 사용되었습니다...", "the text's name is declared already") \
  X(ExportNotFound,    "EXPORT 변수를 찾을 수 없습니다...", "the exported variable is not declared on an earlier line") \
  X(OpenArguments,     "'OPEN' 인수사용이 잘못되었습니다...", "'OPEN' is used wrongly") \
  X(TableNameArguments, "'TABLE_NAME' 인수사용이 잘못되었습니다...", "'TABLE_NAME' needs one name in double quotes") \
  X(KeywordTwice,      "키워드 '%s'가 중복 선언되었습니다...", "'%s' is stated a second time") \
  /* main lines */ \
  X(BadLine,           "잘못된 구문입니다...", "neither a label nor an instruction with operands") \
  X(LabelTwice,        "라벨명이 중복 되었습니다...", "the label is defined already") \
  X(LabelTooLong,      "'%s' 라벨명이 너무 깁니다...", "the label '%s' is longer than 31 bytes") \
  X(UnknownInstruction, "정의 되지 않은 명령어 입니다...", "unknown instruction") \
  X(OperandTooLong,    "'%s' 인수가 너무 깁니다...", "the operand '%s' is longer than 79 bytes") \
  /* the use of an instruction */ \
  KVL_USAGE_MESSAGE(X, ADD) \
  KVL_USAGE_MESSAGE(X, AND) \
  KVL_USAGE_MESSAGE(X, CAT) \
  KVL_USAGE_MESSAGE(X, CLEAR) \
  KVL_USAGE_MESSAGE(X, CMP) \
  KVL_USAGE_MESSAGE(X, CONV) \
  X(COPYUsage,         "'COPY' 명령어 인수개수가 잘못되었습니다...", "'COPY' has the wrong number of operands") \
  KVL_USAGE_MESSAGE(X, DEC) \
  KVL_USAGE_MESSAGE(X, DELAY) \
  KVL_USAGE_MESSAGE(X, FIND) \
  KVL_USAGE_MESSAGE(X, GET) \
  KVL_USAGE_MESSAGE(X, IN) \
  KVL_USAGE_MESSAGE(X, INC) \
  KVL_USAGE_MESSAGE(X, JP) \
  KVL_USAGE_MESSAGE(X, JPXX) \
  KVL_USAGE_MESSAGE(X, MOVE) \
  KVL_USAGE_MESSAGE(X, NOT) \
  KVL_USAGE_MESSAGE(X, OR) \
  KVL_USAGE_MESSAGE(X, OUT) \
  KVL_USAGE_MESSAGE(X, PRINT) \
  KVL_USAGE_MESSAGE(X, PRINTEX) \
  KVL_USAGE_MESSAGE(X, PUT) \
  KVL_USAGE_MESSAGE(X, SLEEP) \
  KVL_USAGE_MESSAGE(X, SUB) \
  KVL_USAGE_MESSAGE(X, SYNC) \
  KVL_USAGE_MESSAGE(X, XOR) \
  KVL_FIRST_MESSAGE(X, ADD) \
  KVL_FIRST_MESSAGE(X, SUB) \
  KVL_FIRST_MESSAGE(X, AND) \
  KVL_FIRST_MESSAGE(X, OR) \
  KVL_FIRST_MESSAGE(X, XOR) \
  KVL_FIRST_MESSAGE(X, NOT) \
  /* one operand */ \
  X(NotFound,          "'%s' 변수를 찾을수 없습니다...", "'%s' is no declared variable, or its index is out of range") \
  X(NotArray,          "'%s' 변수가 배열변수가 아닙니다...", "'%s' is not a buffer (DIM)") \
  X(NoArray,           "'%s' 배열변수가 아닙니다...", "'%s' is not a buffer") \
  X(BadConstant,       "'%s' 변수(상수)형태가 잘못되었습니다...", "'%s' is not a number") \
  X(BadKind,           "'%s' 변수형태가 잘못되었습니다...", "'%s' is not a scalar (VAR)") \
  X(BadKindConv,       "'%s' 변수형태가 잘못 되었습니다...", "'%s' can't take a converted number: it is not a scalar (VAR)") \
  X(BadString,         "'%s' 문자열이 잘못 되었습니다...", "the text '%s' has no closing quote mark") \
  X(BadDesignation,    "'%s' 변수지정이 잘못 되었습니다...", "'%s' is neither a whole number nor a variable") \
  X(NotScalar,         "'%s' 변수가 일반변수(VAR)가 아닙니다...", "'%s' can't take a length: it is not a scalar (VAR)") \
  X(WrongVariable,     "'%s' 변수가 잘못 지정되었습니다...", "'%s' can't take the result: it is not a scalar (VAR)") \
  X(BadCount,          "'%s' 복사갯수가 0보다 커야합니다...", "the count '%s' is too large") \
  X(BadStringUse,      "'%s' 문자열 사용에 문제가 있습니다...", "the text '%s' must have a character and a closing quote mark") \
  X(BadOperandConv,    "'%s' 인수부분이 잘못 되었습니다...", "the digit count '%s' must be a number that is not 0") \
  X(MustBeArray,       "'%s' 인수부분이 배열변수이어야 합니다...", "'%s' must be a buffer (DIM) or a text (EQU)") \
  X(BadOperand,        "'%s' 인수부분이 잘못되었습니다...", "'%s' can't be assigned to: it is not a scalar (VAR)") \
  X(WrongArgument,     "'%s' 잘못된 인자입니다...", "'%s' is not a number in the form that this operand needs") \
  X(BadArgument,       "'%s' 인자지정이 잘못되었습니다...", "the operand '%s' has the wrong form") \
  X(NoTag,             "'%s' 태그명을 찾을수 없습니다...", "'%s' is no declared variable that could hold a tag's name") \
  X(BadTag,            "'%s' 태그명 설정이 잘못되었습니다...", "the tag '%s' must be the name of a variable") \
  X(NoLabel,           "'%s' 라벨변수를 찾을수 없습니다...", "there is no label '%s'") \
  X(FindPattern,       "'FIND' 명령의 2번 인수부분이 잘못되었습니다...", "operand 2 of 'FIND' must be a text in double quotes") \
  X(OutOperand,        "'OUT' 명령의 인수부분이 잘못되었습니다...", "the operand of 'OUT' must be a quoted text, a buffer (DIM) or a text (EQU)") \
  X(PrintOperand,      "'PRINT' 명령의 인수부분이 잘못되었습니다...", "the quoted text of 'PRINT' is not closed") \
  X(PrintExOperand,    "'PRINTEX' 명령의 인수부분이 잘못되었습니다...", "the quoted text of 'PRINTEX' is not closed") \
  X(DelayArgument,     "'DELAY' 인수 사용이 잘못되었습니다...", "'DELAY' needs a whole number of milliseconds") \
  X(SleepArgument,     "'SLEEP' 인수 사용이 잘못되었습니다...", "'SLEEP' needs a whole number of milliseconds")
// clang-format on

namespace kvl {

enum class EMessage : uint8_t {
#define KVL_MESSAGE_ID(id, korean, english) id,
  KVL_MESSAGES(KVL_MESSAGE_ID)
#undef KVL_MESSAGE_ID
};

// Both texts are UTF-8.
struct CMessageText {
  std::string_view m_name;
  std::string_view m_korean;
  std::string_view m_english;
};

inline constexpr CMessageText kMessageTexts[] = {
#define KVL_MESSAGE_TEXT(id, korean, english) {#id, korean, english},
    KVL_MESSAGES(KVL_MESSAGE_TEXT)
#undef KVL_MESSAGE_TEXT
};

inline const CMessageText& TextOf(EMessage message) {
  return kMessageTexts[static_cast<size_t>(message)];
}

// `text` with `operand` in the place of its %s, if it has one.
KVL_API std::string FillMessage(std::string_view text, std::string_view operand);

// The line number of the message about a file that can't be read: it names none.
constexpr int32_t kNoLine = 0;

// The finished message in code page 949; `operand`, bytes of the script, goes in unchanged.
std::string FormatMessage(EMessage message, int32_t line, std::string_view operand);

}  // namespace kvl
