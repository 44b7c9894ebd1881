// The operands of every instruction: one row for each thing that passes and each that doesn't.
#include <gtest/gtest.h>

#include "verifier/test_verifier.h"

namespace kvl {
namespace {

constexpr std::string_view kDeclarations =
    "VAR N% 0\nVAR M# 0\nDIM BUF$ 10\nDIM WORDS% 5\nEQU E \"abc\"\nASSIGN A \"tag\"\n";
constexpr int kLine = 8;  // of the row's instruction

struct CRow {
  const char* line;
  const char* fault;  // id, or id(shown); empty for what passes
};

std::string FaultOf(const char* line) {
  const auto syntax = Verify(fmt::format("{}BEGIN:\n{}\nEND:\n", kDeclarations, line));
  std::string faults = Faults(*syntax);
  const std::string prefix = fmt::format("{} ", kLine);
  if (faults.starts_with(prefix)) faults.erase(0, prefix.size());
  return faults;
}

void Expect(std::span<const CRow> rows) {
  for (const CRow& row : rows) EXPECT_EQ(FaultOf(row.line), row.fault) << row.line;
}

TEST(ChecksTest, EveryInstructionKnowsItsNumberOfOperands) {
  for (const CInstruction& instruction : kInstructions) {
    std::string word(instruction.m_keyword);
    if (instruction.m_nNumber >= kJPE && instruction.m_nNumber <= kJPGE) word = "JPXX";
    for (const int count : {1, 2, 3, 4, 5, 100}) {
      std::string line = fmt::format("{} ", instruction.m_keyword);
      for (int i = 0; i < count; ++i) line += "N,";
      const bool legal = count >= instruction.m_nLeast && count <= instruction.m_nMost;
      EXPECT_EQ(FaultOf(line.c_str()) == word + "Usage", !legal) << line.substr(0, 30) << count;
    }
  }
}

TEST(ChecksTest, Arithmetic) {
  const CRow rows[] = {
      {"ADD N, 0FFH", ""},
      {"ADD N, FFH", "NotFound(FFH)"},
      {"ADD N, 12B", "BadConstant(12B)"},
      {"ADD N, 101B", ""},
      {"ADD N, H", "NotFound(H)"},
      {"ADD N, 0AGH", "BadConstant(0AGH)"},
      {"ADD N, 0ffH", "BadConstant(0ffH)"},
      {"ADD N, 0FFh", "BadConstant(0FFh)"},
      {"ADD N, -1H", "BadConstant(-1H)"},
      {"ADD N, -1B", "BadConstant(-1B)"},
      {"ADD N, 1.5.2", ""},
      {"ADD N, -1x", ""},
      {"ADD N, +", ""},
      {"ADD N, 1-", "BadConstant(1-)"},
      {"ADD N, \"1\"", "BadConstant(\"1\")"},
      {"ADD N, n", "BadConstant(n)"},
      {"ADD N, 1E5", "BadConstant(1E5)"},
      {"ADD N, M", ""},
      {"ADD N, BUF[N+1]", ""},
      {"ADD N, BUF[N-1]", "NotFound(BUF[N-1])"},
      {"ADD N, QQ", "NotFound(QQ)"},
      {"ADD BUF[2], 1", "NotFound(BUF[2])"},
      {"ADD BUF, 1", ""},
      {"ADD n, 1", "ADDFirst"},
      {"ADD QQ, 12B", "NotFound(QQ)"},
      {"SUB N, 1.5", ""},
      {"SUB 5, N", "SUBFirst"},
      {"SUB E, 1", ""},
      {"SUB QQ, 1", "NotFound(QQ)"},
      {"SUB N, QQ", "NotFound(QQ)"},
      {"SUB N, 2B", "BadConstant(2B)"},
  };
  Expect(rows);
}

TEST(ChecksTest, Logic) {
  for (const std::string word : {"AND", "OR", "XOR"}) {
    const CRow rows[] = {
        {" N, 1", ""},
        {" N, 0FH", ""},
        {" N, 1.5", "BadConstant(1.5)"},
        {" N, -1.5", ""},
        {" N, 2B", "BadConstant(2B)"},
        {" N, M", ""},
        {" N[1], M[1]", ""},
        {" n, 1", "First"},
        {" QQ, 1", "NotFound(QQ)"},
        {" BUF, 1", "BadKind(BUF)"},
        {" N, QQ", "NotFound(QQ)"},
        {" N, BUF[0]", "BadKind(BUF[0])"},
        {" N, E", "BadKind(E)"},
    };
    for (const CRow& row : rows) {
      const std::string expected = (std::string(row.fault) == "First" ? word : "") + row.fault;
      EXPECT_EQ(FaultOf((word + row.line).c_str()), expected) << word << row.line;
    }
  }
  const CRow rows[] = {
      {"NOT N", ""},
      {"NOT N[1]", ""},
      {"NOT n", "NOTFirst"},
      {"NOT QQ", "NotFound(QQ)"},
      {"NOT BUF", "BadKind(BUF)"},
      {"NOT A", "BadKind(A)"},
  };
  Expect(rows);
}

TEST(ChecksTest, StepsMovesAndComparisons) {
  const CRow rows[] = {
      {"INC BUF[2]", ""},
      {"INC BUF[-1]", "NotFound(BUF[-1])"},
      {"INC n", ""},
      {"INC 5", ""},
      {"INC QQ", "NotFound(QQ)"},
      {"DEC N", ""},
      {"DEC QQ[1]", "NotFound(QQ[1])"},
      {"MOVE N, 5", ""},
      {"MOVE N, BUF[0]", ""},
      {"MOVE N, 0.5", ""},
      {"MOVE QQ, 5", "NotFound(QQ)"},
      {"MOVE N[0], 5", "NotFound(N[0])"},
      {"MOVE BUF, 5", "BadOperand(BUF)"},
      {"MOVE N, QQ", "NotFound(QQ)"},
      {"MOVE N, 5x", "WrongArgument(5x)"},
      {"CMP N, 5", ""},
      {"CMP BUF, anything", ""},
      {"CMP N, BUF[1]", ""},
      {"CMP n, 1", "NotFound(n)"},
      {"CMP BUF[1], 1", "NotFound(BUF[1])"},
      {"CMP N, Zzz", "NotFound(Zzz)"},
  };
  Expect(rows);
}

TEST(ChecksTest, Indexes) {
  const CRow rows[] = {
      {"ADD N, BUF[0-1]", "NotFound(BUF[0-1])"},
      {"ADD N, BUF[-0.5]", ""},  // truncates to 0
      {"ADD N, BUF[QQ]", ""},    // an undeclared name counts 0 here
      {"ADD N, BUF[QQ-2]", "NotFound(BUF[QQ-2])"},
      {"ADD N, BUF[3-+2]", ""},
      {"ADD N, BUF[WORDS[1]-1]", "NotFound(BUF[WORDS[1]-1])"},
      {"ADD N, BUF[", ""},
      {"ADD N, N[7]", ""},
      {"ADD N, BUF[2147483647]", ""},
      // What the engine would wrap to another element.
      {"ADD N, BUF[4294967296]", "NotFound(BUF[4294967296])"},
      {"ADD N, BUF[99999999999999999999]", "NotFound(BUF[99999999999999999999])"},
  };
  Expect(rows);
}

TEST(ChecksTest, StreamAndText) {
  const CRow rows[] = {
      {"IN BUF, N", ""},
      {"IN QQ, RR", "NotFound(QQ)"},
      {"IN N, N", "NotArray(N)"},
      {"IN BUF, RR", "NotFound(RR)"},
      {"IN BUF, BUF", "WrongVariable(BUF)"},
      {"FIND BUF, \"x\", N", ""},
      {"FIND BUF, \"\", N", ""},
      {"FIND QQ, \"x\", N", "NotFound(QQ)"},
      {"FIND E, \"x\", N", "NotArray(E)"},
      {"FIND BUF, E, N", "FindPattern"},
      {"FIND BUF, x\"\", N", "FindPattern"},
      {"FIND BUF, \"x\"y, N", "FindPattern"},
      {"FIND BUF, \"x\", QQ", "NotFound(QQ)"},
      {"FIND BUF, \"x\", BUF", "WrongVariable(BUF)"},
      {"CAT BUF, \"x\", N", ""},
      {"CAT BUF, \"x\"y, 12", ""},
      {"CAT BUF, WORDS, N", ""},
      {"CAT QQ, \"x\", N", "NotFound(QQ)"},
      {"CAT N, \"x\", N", "NotArray(N)"},
      {"CAT BUF, QQ, N", "NotFound(QQ)"},
      {"CAT BUF, E, N", "NotArray(E)"},
      {"CAT BUF, \"x\", 1x", "BadDesignation(1x)"},
      {"CAT BUF, \"x\", QQ", "NotFound(QQ)"},
      {"CAT BUF, \"x\", BUF", "NotScalar(BUF)"},
      {"CLEAR A", ""},
      {"CLEAR BUF[0]", "NotFound(BUF[0])"},
      {"COPY BUF, E, N", ""},
      {"COPY BUF[1], BUF[N], 5x", ""},
      {"COPY BUF, \"x\", 0", ""},
      {"COPY BUF, \"x\", 4294967296", "BadCount(4294967296)"},
      {"COPY QQ, \"x\", RR", "NotFound(RR)"},  // the count is looked at first
      {"COPY BUF, \"x\", -1", "NotFound(-1)"},
      {"COPY QQ, E, 3", "NotFound(QQ)"},
      {"COPY N, E, 3", "NoArray(N)"},
      {"COPY BUF, \"\", 3", "BadStringUse(\"\")"},
      {"COPY BUF, \"x\"y, 3", "BadStringUse(\"x\"y)"},
      {"COPY BUF, QQ, 3", "NotFound(QQ)"},
      {"COPY BUF, A, 3", "NoArray(A)"},
      {"CONV N, BUF[2], 4", ""},
      {"CONV N, E, -4", ""},
      {"CONV N, BUF, 0", "BadOperandConv(0)"},
      {"CONV N, BUF, N", "BadOperandConv(N)"},
      {"CONV N, BUF, 4294967297", "BadOperandConv(4294967297)"},
      {"CONV QQ, BUF, 4", "NotFound(QQ)"},
      {"CONV BUF, BUF, 4", "BadKindConv(BUF)"},
      {"CONV N, QQ, 4", "MustBeArray(QQ)"},
      {"CONV N, A, 4", "MustBeArray(A)"},
  };
  Expect(rows);
  // An open quote reaches to the end of the line, so that only the last operand can be one; the
  // record itself shows what CAT says of it.
  const auto syntax = Verify("DIM BUF$ 10\nVAR N% 0\nBEGIN:\nEND:\n");
  const CCommandTable command = {9, kCAT, 3, {"BUF", "\"open", "N"}};
  syntax->_Cat(&command);
  EXPECT_EQ(Faults(*syntax), "9 BadString( open)");
}

TEST(ChecksTest, OutputAndTags) {
  const CRow rows[] = {
      {"OUT \"x\"", ""},
      {"OUT \"", ""},
      {"OUT \"x", "OutOperand"},
      {"OUT \"x\"y", "OutOperand"},
      {"OUT BUF", ""},
      {"OUT E", ""},
      {"OUT N", "OutOperand"},
      {"OUT A", "OutOperand"},
      {"OUT QQ", "NotFound(QQ)"},
      {"PRINT \"a, b\"", ""},
      {"PRINT BUF, H", ""},
      {"PRINT N, T", ""},
      {"PRINT \"x", "PrintOperand"},
      {"PRINT \"", "PrintOperand"},
      {"PRINT QQ, D", "NotFound(QQ)"},
      {"PRINT BUF, D", "BadArgument(D)"},
      {"PRINT BUF, h", "BadArgument(h)"},
      {"PRINTEX BUF, HH", "BadArgument(HH)"},
      {"PRINTEX A", ""},
      {"PRINTEX \"x", "PrintExOperand"},
      {"PRINTEX QQ", "NotFound(QQ)"},
      {"DELAY 10", ""},
      {"DELAY 1a", "DelayArgument"},
      {"DELAY N", "DelayArgument"},
      {"DELAY 4294967296", "DelayArgument"},
      {"SLEEP 10", ""},
      {"SLEEP -1", "SleepArgument"},
      {"SYNC 12", ""},
      {"SYNC 1a", "WrongArgument(1a)"},
      {"SYNC 2147483648", "WrongArgument(2147483648)"},
      {"PUT A, \"x\"", ""},
      {"PUT A, -x", ""},
      {"PUT BUF, 5, 0", "BadArgument(0)"},
      {"PUT BUF, 5, 4294967296", "BadArgument(4294967296)"},
      {"PUT BUF, 5, QQ", "NotFound(QQ)"},
      {"PUT BUF, 5, 3", ""},
      {"PUT BUF, 5, N", ""},
      {"PUT BUF, 5, 3x", "NotFound(3x)"},
      {"PUT QQ, 5", "NoTag(QQ)"},
      {"PUT A[0], 5", "NoTag(A[0])"},
      {"PUT A, \"x\"y", "BadArgument(\"x\"y)"},
      {"PUT A, QQ", "NotFound(QQ)"},
      {"PUT A, BUF[2]", ""},
      {"PUT A, N", ""},
      {"PUT A, N[2]", "BadArgument(N[2])"},
      {"GET N, A", ""},
      {"GET BUF[1], BUF", ""},
      {"GET 5, BUF", "BadArgument(5)"},
      {"GET +N, BUF", "BadArgument(+N)"},
      {"GET QQ, A", "NotFound(QQ)"},
      {"GET N[1], BUF", "BadArgument(N[1])"},
      {"GET N, a", "BadTag(a)"},
      {"GET N, \"A\"", "BadTag(\"A\")"},
      {"GET N, QQ", "NoTag(QQ)"},
      {"GET N, A, 4", ""},
      {"GET N, A, -4", ""},
      {"GET N, A, 0", "BadArgument(0)"},
      {"GET N, A, N", "BadArgument(N)"},
      {"GET N, A, 4294967296", "BadArgument(4294967296)"},
  };
  Expect(rows);
}

TEST(ChecksTest, Jumps) {
  for (const std::string word : {"JP", "JPE", "JPNE", "JPL", "JPLE", "JPG", "JPGE"}) {
    EXPECT_EQ(FaultOf((word + " END").c_str()), "") << word;
    EXPECT_EQ(FaultOf((word + " NOWHERE").c_str()), "NoLabel(NOWHERE)") << word;
    EXPECT_EQ(FaultOf((word + " END:").c_str()), "NoLabel(END:)") << word;
  }
  EXPECT_EQ(Faults("BEGIN:\nJP FURTHER\nFURTHER:\nEND:\n"), "");
}

// A host may call the checkers by themselves, with any record.
TEST(ChecksTest, CheckersTakeAnyRecord) {
  CCommandTable command = {};
  std::memset(command.m_szOperand, 'A', sizeof command.m_szOperand);
  for (const bool empty : {false, true}) {
    if (empty) command = {};
    for (int count = 0; count <= 4; ++count) {
      command.m_nOperand = static_cast<uint8_t>(count);
      CKVLSyntax syntax;
#define KVL_CALL(checker, number) syntax.checker(&command);
      KVL_HANDLERS(KVL_CALL)
#undef KVL_CALL
      syntax._Jp(&command);
      syntax._Jp_condition(&command, 0);
      EXPECT_GE(syntax.GetErrorCount(), 20u);
      for (const CFault& fault : syntax.Errors()) {
        EXPECT_LE(fault.m_strShown.size(), static_cast<size_t>(kMaxOperand));
      }
    }
  }
}

}  // namespace
}  // namespace kvl
