// What each instruction does to the variables, row by row.
#include <gtest/gtest.h>

#include "script/test_engine.h"

namespace kvl {
namespace {

template <size_t N>
void ExpectRows(const CEngineRow (&rows)[N]) {
  for (const CEngineRow& row : rows) {
    EXPECT_EQ(Outcome(row), row.expected) << row.declarations << "\n" << row.main;
  }
}

constexpr const char* kScalars =
    "VAR B$ 0\nVAR N% 0\nVAR D# 0\nVAR BIG# 3000000000\nVAR S$ -56\nVAR M% 10\nDIM BUF$ 4\n"
    "DIM WORDS% 2\nEQU E \"7\"";

TEST(InstructionsTest, Move) {
  ExpectRows({
      {kScalars, "MOVE N, 2.9\nMOVE B, 300\nMOVE D, -2.9", "", "N=2; B=44; D=-2.9"},
      {kScalars, "MOVE N, -2.9\nMOVE D, 0FFFFFFFFH\nMOVE B, 101B", "", "N=-2; D=-1; B=5"},
      {kScalars, "MOVE N, BIG\nMOVE B, BIG\nMOVE D, M", "", "N=-1294967296; B=0; D=10"},
      {kScalars, "IN BUF, N\nMOVE N, BUF[1]\nMOVE B, BUF[1]\nMOVE D, BUF[1]", "a\xFFz",
       "N=-1; xB=ff; D=-1; 'BUF=a\xFFz"},
      {kScalars, "MOVE M, 2\nIN BUF, B\nMOVE N, BUF[M]\nMOVE D, BUF[M+9]", "abc", "N=99; D=0"},
      {kScalars, "MOVE N, 5\nMOVE N, NONE\nMOVE BUF, 65\nMOVE BUF[1], 65\nMOVE E, 1", "",
       "N=0; 'BUF=; 'E=7"},
      {kScalars, "MOVE N, n\nMOVE D, E", "", "N=0; D=0"},
  });
}

TEST(InstructionsTest, Arithmetic) {
  ExpectRows({
      {kScalars, "MOVE B, 250\nADD B, 10\nMOVE N, 2147483647\nADD N, 1\nADD D, 1.9", "",
       "B=4; N=-2147483648; D=1.9"},
      {kScalars, "MOVE B, 5\nADD B, 255.9\nADD N, 1.9\nADD N, 1.9\nSUB N, -1.9", "", "B=4; N=3"},
      {kScalars, "SUB B, 1\nADD N, BIG\nSUB D, M", "", "xB=ff; N=-1294967296; D=-10"},
      {kScalars, "ADD N, 1E30\nADD N, NONE\nADD BUF, 1\nADD BUF[0], 1\nADD E, 1", "",
       "N=0; xBUF=00000000; 'E=7"},
      {kScalars, "MOVE N, 5\nADD N, S\nADD B, M\nSUB B, S\nADD D, S", "", "N=-51; B=66; D=-56"},
      {kScalars, "MOVE N, 12\nAND N, 10\nMOVE B, 12\nOR B, 3\nMOVE M, 6\nXOR M, 0FFFFFFFFH", "",
       "N=8; B=15; M=-7"},
      {kScalars, "MOVE N, 77\nAND N, -1\nAND N, 0FFFFFFFFH\nMOVE M, 7\nAND M, NONE", "",
       "N=77; M=0"},
      {kScalars, "MOVE D, 6\nAND D, 3\nOR D, 1\nXOR D, 1\nNOT D", "", "D=6"},
      {kScalars, "IN BUF, N\nMOVE N, 1\nXOR N, BUF[1]\nOR B, BUF[0]", "\x01\xFF", "N=-2; B=1"},
      {kScalars, "MOVE N, 5\nNOT N\nNOT B\nMOVE M, -1\nNOT M\nNOT S\nNOT S", "",
       "N=0; B=1; M=0; S=1"},
      {kScalars, "MOVE B, 127\nINC B\nMOVE D, 1.5\nINC D\nDEC N\nMOVE M, 80000000H\nDEC M", "",
       "B=-128; D=2.5; N=-1; M=2147483647"},
      {kScalars, "MOVE B, 255\nINC B\nINC BUF[0]\nDEC E\nINC NONE", "", "B=0; xBUF=00000000"},
  });
}

TEST(InstructionsTest, Compare) {
  ExpectRows({
      {kScalars, "CMP M, 10", "", "flags=0x29"},
      {kScalars, "CMP M, 11", "", "flags=0x0e"},
      {kScalars, "CMP M, 9.5", "", "flags=0x32"},
      {kScalars, "CMP S, -56", "", "flags=0x29"},
      {kScalars, "CMP BIG, M\n", "", "flags=0x32"},
      {kScalars, "MOVE N, -56\nCMP N, S", "", "flags=0x29"},
      {kScalars, "CMP M, 4294967306", "", "flags=0x0e"},  // a literal beyond 32 bits is not cut
      {kScalars, "IN BUF, N\nCMP BUF, 97", "a", "flags=0x29"},
      {kScalars, "IN BUF, N\nMOVE M, 1\nCMP N, BUF[M-1]", "\x01", "flags=0x29"},
      {kScalars, "CMP E, 0", "", "flags=0x29"},
      {kScalars, "CMP M, m\nJPG END\nMOVE N, 1", "", "flags=0x32; N=0"},
      {kScalars, "CMP M, 0x10", "", "flags=0x32"},  // reads as 0
      {kScalars, "CMP M, 0AH", "", "flags=0x32"},
      {"VAR D# 1E999", "SUB D, D\nCMP D, 1", "", "flags=0x0d"},  // unordered
      {kScalars, "CMP M, 10\nCMP NONE, 1", "", "flags=0x00"},    // nothing to compare
      {kScalars, "CMP M, 10\nCMP BUF[1], 1", "", "flags=0x00"},
  });
}

constexpr const char* kStream =
    "DIM BUF$ 10\nDIM ONE$ 1\nDIM NIL$ 0\nVAR N% 7\nVAR B$ 7\nVAR D# 7\nEQU E \"abc\"";
const std::string kLong(300, 'x');

TEST(InstructionsTest, In) {
  ExpectRows({
      {kStream, "IN BUF, N", "abc", "xBUF=61626300000000000000; N=3"},
      {kStream, "IN BUF, N", "", "'BUF=; N=0"},
      {kStream, "IN BUF, B\nIN BUF, D", kLong.c_str(), "'BUF=xxxxxxxxx; B=44; D=300"},
      // Nothing of the old string stays ahead of its old end, and what is behind it stays.
      {kStream, "COPY BUF, \"longer\", 6\nCOPY BUF[8], \"z\", 1\nIN BUF, N", "ab",
       "xBUF=61620000000000007a00"},
      {kStream, "IN ONE, N\nIN NIL, B", "abc", "xONE=00; N=3; B=3"},
      {kStream, "IN BUF[1], N\nIN E, B\nIN NONE, D", "abc", "'BUF=; 'E=abc; N=3; B=3; D=3"},
      {kStream, "IN BUF, N[0]\nIN BUF, BUF", "abc", "'BUF=abc; N=7"},
  });
}

TEST(InstructionsTest, Find) {
  ExpectRows({
      {kStream, "IN BUF, N\nFIND BUF, \"ab\", N", "ab-ab", "N=0"},
      {kStream, "IN BUF, N\nFIND BUF, \"b<0D><0A>\", N", "ab\r\n", "N=1"},
      {kStream, "IN BUF, N\nFIND BUF, \"c\", N\nFIND BUF, \"C\", D\nFIND BUF, \"zz\", B", "abcabc",
       "N=2; D=-1; xB=ff"},
      {kStream, "FIND BUF, \"\", N\nFIND BUF, \"<00>x\", B\nFIND BUF, \"x\", D", "",
       "N=0; B=0; D=-1"},
      {kStream, "IN BUF, N\nFIND BUF, \"<4\", N\nFIND BUF, \"<41\", D", "a<4A>", "N=1; D=-1"},
      {kStream, "IN BUF, N\nFIND BUF, <62>, N\nFIND BUF, <00>, D\nFIND BUF, <, B", "abc",
       "N=1; D=3; B=3"},
      {kStream, "IN BUF, N\nFIND E, \"a\", N\nFIND NONE, \"\", D", "abc", "N=-1; D=0"},
      // What lies behind the string's end doesn't count.
      {kStream, "COPY BUF[5], \"XY\", 2\nFIND BUF, \"X\", N\nFIND BUF, \"XY\", D", "",
       "N=-1; D=-1"},
      {kStream, "FIND ONE, \"a\", E\nFIND BUF, \"\", BUF", "", "'E=abc; 'BUF="},
      {kStream, "FIND NIL, \"a\", N\nFIND NIL, <00>, D", "", "N=-1; D=0"},
  });
}

TEST(InstructionsTest, FindSearchesTheWholeBuffer) {
  CTestEngine test("DIM BUF$ 600\nVAR N% 0", "IN BUF, N\nFIND BUF, \"yz\", N");
  test.Run(std::string(500, 'x') + "yz");
  EXPECT_EQ(test.Show("N"), "500");
}

constexpr const char* kBuffers =
    "DIM A$ 8\nDIM C$ 8\nDIM W% 2\nVAR N% 7\nVAR B$ 7\nVAR D# 7\nEQU E \"abc\"\nASSIGN Q \"xyz\"";

TEST(InstructionsTest, Cat) {
  ExpectRows({
      {kBuffers, "CAT A, \"ab\", N\nCAT A, \"<4\", D\nCAT A, \"\", B", "",
       "'A=ab<4; N=2; D=4; B=4"},
      {kBuffers, "CAT A, \"abcdef\", N\nCAT A, \"ghi\", D", "", "xA=6162636465666700; N=6; D=7"},
      {kBuffers, "CAT A, \"abc\", 2\nCAT C, A, N\nCAT C, C, D", "", "'A=abc; 'C=abcabc; N=3; D=6"},
      {kBuffers, "CAT A, E, N\nCAT A, Q, D\nCAT A, NONE, B", "", "'A=; N=0; D=0; B=0"},
      {kBuffers, "CAT E, \"x\", N\nCAT NONE, \"x\", D\nCAT N, \"x\", B", "",
       "'E=abc; N=7; D=7; B=7"},
      {kBuffers, "COPY A, \"12345678\", 8\nCAT A, \"x\", N", "", "'A=12345678; N=8"},
  });
}

TEST(InstructionsTest, Clear) {
  ExpectRows({
      {kBuffers, "COPY A, \"ab<\", 3\nCOPY A[5], \"c\", 1\nCLEAR A", "", "xA=0000000000000000"},
      {kBuffers, "CLEAR N\nCLEAR B\nCLEAR D\nCLEAR E\nCLEAR Q\nCLEAR NONE", "",
       "N=0; B=0; D=0; 'E=abc; 'Q=xyz"},
      {"DIM NIL$ 0", "CLEAR NIL", "", "xNIL="},
  });
}

TEST(InstructionsTest, Copy) {
  ExpectRows({
      {kBuffers, "COPY A, \"abc\", 3\nCOPY C, \"abc\", 4", "", "'A=abc; 'C=abc\""},
      {kBuffers, "COPY A, \"abc\", 3\nCOPY A[1], A, 0", "", "'A=a"},
      {kBuffers, "COPY A, \"abc\", 3\nCOPY A[1], A, NONE", "", "'A=a"},
      // A byte written is read again when the copy goes up within reach of its source.
      {kBuffers, "COPY A, \"abcd\", 4\nCOPY A[1], A, 4", "", "'A=aaaaa"},
      {kBuffers, "COPY A, \"abcdef\", 6\nCOPY A, A[2], 4", "", "'A=cdef"},
      {kBuffers, "COPY A, \"ab\", 2\nCOPY A[4], \"cd\", 2\nCOPY C, A, 6", "",
       "xC=6162000063640000"},
      // Limits: the destination's end, with a terminator only if there is room; the source's end.
      {kBuffers, "COPY A, \"123456789\", 8\nCOPY C[6], A, 8", "",
       "'A=12345678; xC=0000000000003132"},
      {kBuffers, "COPY A, \"1234567\", 7\nCOPY C, E, 8\nMOVE N, 1", "", "'C=abc; 'A=1234567"},
      {kBuffers, "COPY C, \"1234567\", 7\nCOPY C, \"a\", 4", "", "xC=6122000000363700"},
      {kBuffers,
       "COPY A[8], E, 1\nCOPY A[-1], E, 1\nCOPY NONE, E, 1\nCOPY A, NONE, 1\nCOPY A, E[9], 1", "",
       "'A="},
      {kBuffers, "COPY W[1], E, 2\nCOPY A, Q[1], N", "", "xW=0061620000000000; 'A=yz"},
      {kBuffers, "MOVE B, 2\nCOPY A, E, B\nCOPY C, E, 2H", "", "'A=ab; 'C=ab"},
      {kBuffers, "COPY A, E, -2\nCOPY C, E, 99999999999", "", "'A=; 'C=abc"},
      {kBuffers, "COPY N, \"ABCDE\", 5\nCOPY E[1], \"XYZ\", 3", "", "xN=41424344; xE=615859"},
  });
}

TEST(InstructionsTest, Conv) {
  ExpectRows({
      {kBuffers, "COPY A, \"12.5kg\", 6\nCONV D, A, 4\nCONV N, A, 6\nCONV B, A, 2", "",
       "D=12.5; N=12; B=12"},
      {kBuffers, "COPY A, \"x 300\", 5\nCONV D, A, 5\nCONV B, A[1], 4\nCONV N, A[2], 1", "",
       "D=0; B=44; N=3"},
      {kBuffers, "COPY A, \"12\", 2\nCONV D, A, N\nCONV N, A, 0\nCONV B, A, 999", "",
       "D=0; N=0; B=12"},
      {kBuffers, "CONV D, NONE, 3\nCONV N, A[8], 1\nCONV A, E, 3\nCONV E, A, 1", "",
       "D=7; N=7; 'A=; 'E=abc"},
      {kBuffers, "COPY A, \"infinity\", 8\nCONV D, A, 8\nCOPY A, \"0x1F\", 4\nCONV N, A, 4", "",
       "D=0; N=0"},
      {"EQU E \"-1.5e1x\"\nVAR D# 0", "CONV D, E, 6", "", "D=-15"},
  });
}

}  // namespace
}  // namespace kvl
