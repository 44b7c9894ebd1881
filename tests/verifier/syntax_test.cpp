// Loading, declarations, header, main lines, and the messages themselves.
#include <gtest/gtest.h>

#include "platform/text_encoding.h"
#include "verifier/test_verifier.h"

namespace kvl {
namespace {

struct CRow {
  std::string text;
  std::string faults;
};

const std::string kMain = "BEGIN:\nEND:\n";

void ExpectFaults(std::span<const CRow> rows, const std::string& behind) {
  for (const CRow& row : rows) EXPECT_EQ(Faults(row.text + behind), row.faults) << row.text;
}

TEST(SyntaxTest, Declarations) {
  const std::string longest(31, 'N');
  const CRow rows[] = {
      {"", ""},
      {"  \n\t; comment\n", ""},
      {"DIM BUF$ 10\nDIM W% 1\nDIM D# 3X\n", ""},
      {"DIM BUF$\n", "1 BadArguments"},
      {"DIM BUF$ 0\nDIM BUF$ -1\nDIM BUF$ X\n",
       "1 BufferTooSmall; 2 BufferTooSmall; 3 BufferTooSmall"},
      {"DIM BUF 0\nDIM BUF 1\n", "1 BufferTooSmall; 2 BadForm"},
      {"VAR N% 0\nVAR M# x\nVAR B$ \"\"\n", ""},
      {"VAR N%\n", "1 BadArguments"},
      {"VAR N 0\n", "1 BadForm"},
      {"VAR N% 0\nDIM N# 10\nVAR N$ 0\n", "2 Duplicate; 3 Duplicate"},
      {"VAR N% 0\nEQU N \"X\"\nASSIGN N \"X\"\n", "2 DuplicateText; 3 DuplicateText"},
      {"EQU N% \"X\"\nVAR N% 0\n", ""},
      {"EQU N\nASSIGN\n", "1 BadArguments; 2 BadArguments"},
      {"EQU A x\nEQU B \"\nASSIGN C 5\n", "2 BadArguments"},  // an open quote ends no token
      {"VAR N% 0\nEXPORT N\nEXPORT N%\nEXPORT\nEXPORT N M\n",
       "3 ExportNotFound; 4 BadArguments; 5 BadArguments"},
      {"EXPORT N\nVAR N% 0\n", "1 ExportNotFound"},
      {"VAR N% 0 1\nFOO N 0 1\n", "1 BadStatement; 2 BadStatement"},
      {"FOO N\nvar N% 0\n", "1 BadStatementKind; 2 BadStatementKind"},
      {"MYVAR N% 0\nVARDIM B$ 1\nDIM B$ 1\n", "3 Duplicate"},
      // A name that would be cut, a buffer that the engine would not declare.
      {"VAR " + longest + "% 0\nDIM " + longest + "M$ 1\nEQU " + longest + "M \"\"\n",
       "2 NameTooLong(" + longest + "M); 3 NameTooLong(" + longest + "M)"},
      {"DIM A$ 16777216\nDIM B$ 16777217\nDIM C# 2097153\nDIM D$ 99999999999\n",
       "2 BufferTooBig; 3 BufferTooBig; 4 BufferTooBig"},
  };
  ExpectFaults(rows, kMain);
}

TEST(SyntaxTest, AllBlocksTogetherHaveALimit) {
  std::string text;
  for (int i = 0; i < 16; ++i) text += fmt::format("DIM B{}$ 16777216\n", i);
  EXPECT_EQ(Faults(text + "EQU E \"\"\nEQU F \"x\"\n" + kMain), "18 BufferTooBig");
}

TEST(SyntaxTest, RecordsHoldNameAndKind) {
  const auto syntax = Verify("VAR N% 5\nDIM B$ 9\nEQU E \"x\"\nASSIGN A \"y\"\n" + kMain);
  const auto kindOf = [&](const char* name) { return syntax->GetVariableType(name); };
  EXPECT_EQ(kindOf("N"), kVar);
  EXPECT_EQ(kindOf("B[N-1]"), kDim);
  EXPECT_EQ(kindOf("E[0]"), kEqu);
  EXPECT_EQ(kindOf("A"), kAssign);
  EXPECT_EQ(kindOf("Q"), -1);
  const CVariableTable* record = syntax->FindVariableTable("B");
  EXPECT_EQ(record->m_nSize, 0);
  EXPECT_EQ(record->m_nType, kNoType);
  EXPECT_EQ(syntax->FindVariableTable("E")->m_nType, kByte);
  EXPECT_EQ(syntax->FindVariableTable("B[1]"), nullptr);
  syntax->RemoveVariableTable();
  syntax->RemoveLabelTable();
  syntax->RemoveCommandTable();
  syntax->RemoveExportTable();
  EXPECT_EQ(syntax->FindVariableTable("B"), nullptr);
  EXPECT_EQ(syntax->FindLabelTable("BEGIN"), nullptr);
}

TEST(SyntaxTest, OperandEvaluators) {
  const auto syntax = Verify("DIM BUF$ 10\nVAR I% 3\n" + kMain);
  const auto fault = [&](const char* text) {
    int32_t nFault = 7;
    EXPECT_EQ(syntax->GetBufferValue(text, nFault), 0.0) << text;
    return nFault;
  };
  EXPECT_EQ(fault("BUF"), 0);
  EXPECT_EQ(fault("BUF[0-1]"), -1);
  EXPECT_EQ(fault("QQ"), -1);
  EXPECT_EQ(fault("BUF[X]"), 0);
  EXPECT_EQ(fault("BUF[I-1]"), -1);
  EXPECT_EQ(fault("BUF[-0.5]"), 0);
  const char text[] = "BUF[2.5+I-BUF[7]+1]";
  EXPECT_EQ(syntax->CalcOperation(text, text + 3), 3.5);
  EXPECT_EQ(syntax->GetKeywordMacro("CONV"), 31);
  EXPECT_EQ(syntax->GetKeywordMacro("conv"), 0);
  EXPECT_EQ(syntax->IsNum(""), 1);
  EXPECT_EQ(syntax->IsNum("123"), 1);
  EXPECT_EQ(syntax->IsNum("12a"), 0);
  EXPECT_EQ(syntax->IsNum("-1"), 0);
  EXPECT_EQ(syntax->IsNum("1\xB0"), 0);
}

TEST(SyntaxTest, Header) {
  struct CHeaderRow {
    std::string text;
    std::string comm;  // media ip port baud data parity stop table
    std::string faults;
  };
  const CHeaderRow rows[] = {
      {"", "0   -1 -1 -1 -1 ", ""},
      {"OPEN MEDIA RS232C\nOPEN PORT COM1\nOPEN BAUD_RATE 9600\nOPEN DATA_BIT 8\n"
       "OPEN PARITY_BIT NONE\nOPEN STOP_BIT 1\nTABLE_NAME \"A B\"\n",
       "1  COM1 6 1 0 0 A B", ""},
      {"OPEN MEDIA TCP\nOPEN IP 127.0.0.1\nOPEN PORT 5000\n", "2 127.0.0.1 5000 -1 -1 -1 -1 ", ""},
      {"OPEN MEDIA tcp\nOPEN MEDIA UDP\nOPEN MEDIA TCP\n", "3   -1 -1 -1 -1 ",
       "1 OpenArguments; 3 KeywordTwice(MEDIA)"},
      {"OPEN BAUD_RATE 9601\nOPEN BAUD_RATE 256000\nOPEN BAUD_RATE 1\n", "0   14 -1 -1 -1 ",
       "1 OpenArguments; 3 KeywordTwice(BAUD_RATE)"},
      {"OPEN BAUD_RATE 110\nOPEN BAUD_RATE 110\n", "0   0 -1 -1 -1 ", "2 KeywordTwice(BAUD_RATE)"},
      {"OPEN DATA_BIT 9\nOPEN DATA_BIT X\nOPEN DATA_BIT 7\nOPEN DATA_BIT 8\n", "0   -1 0 -1 -1 ",
       "1 OpenArguments; 2 OpenArguments; 4 KeywordTwice(DATA_BIT)"},
      {"OPEN DATA_BIT 8x\nOPEN PARITY_BIT odd\nOPEN PARITY_BIT EVEN\nOPEN PARITY_BIT ODD\n",
       "0   -1 1 2 -1 ", "2 OpenArguments; 4 KeywordTwice(PARITY_BIT)"},
      {"OPEN STOP_BIT 1.50\nOPEN STOP_BIT 1.5\nOPEN STOP_BIT 2\n", "0   -1 -1 -1 1 ",
       "1 OpenArguments; 3 KeywordTwice(STOP_BIT)"},
      {"OPEN FOO 1\nOPEN\nOPEN MEDIA\nOPEN PORT A B\n", "0   -1 -1 -1 -1 ",
       "1 OpenArguments; 2 OpenArguments; 3 OpenArguments; 4 BadStatement"},
      // One byte more than the record holds is refused, and the field stays free.
      {"OPEN IP 12345678901234567890\nOPEN IP 1234567890123456789\nOPEN IP 1\n"
       "OPEN PORT 123456\nOPEN PORT 12345\nOPEN PORT 1\n",
       "0 1234567890123456789 12345 -1 -1 -1 -1 ",
       "1 OpenArguments; 3 KeywordTwice(IP); 4 OpenArguments; 6 KeywordTwice(PORT)"},
      {"TABLE_NAME NAME\nTABLE_NAME \"N\"\n", "0   -1 -1 -1 -1 NAME",
       "1 TableNameArguments; 2 KeywordTwice(\"N\")"},
      {"TABLE_NAME \"\"\nTABLE_NAME \"\"N\"\"\n", "0   -1 -1 -1 -1 N", ""},
      {"TABLE_NAME\nTABLE_NAME A B\nTABLE_NAME A B C\nTABLE_NAME \"A\nVAR N% \"1\"\n",
       "0   -1 -1 -1 -1 ",
       "1 TableNameArguments; 2 TableNameArguments; 3 BadStatement; 4 TableNameArguments"},
  };
  for (const CHeaderRow& row : rows) {
    const auto syntax = Verify(row.text + kMain);
    COMM comm;
    std::string name;
    syntax->GetCom(&comm);
    const int32_t length = syntax->GetTableName(name);
    EXPECT_EQ(length, static_cast<int32_t>(name.size())) << row.text;
    EXPECT_EQ(fmt::format("{} {} {} {} {} {} {} {}", comm.nMedia, comm.szIP, comm.szPort,
                          comm.nBaudRate, comm.nDataBit, comm.nParityBit, comm.nStopBit, name),
              row.comm)
        << row.text;
    EXPECT_EQ(Faults(*syntax), row.faults) << row.text;
  }
  CKVLSyntax syntax;
  EXPECT_EQ(syntax.CheckTableName(std::vector<std::string>{"TABLE_NAME", "\""}), 0);
  EXPECT_EQ(syntax.CheckCom(std::vector<std::string>{"OPEN"}), -1);
}

TEST(SyntaxTest, MainLines) {
  const std::string longest(31, 'L');
  const std::string operand(79, 'x');
  const CRow rows[] = {
      {"BEGIN:\n", "-1 NoEnd"},
      {"", "-1 NoBegin; -1 NoEnd"},
      {"END:\nBEGIN:\n", ""},
      {"BEGIN:\nBEGIN:\nEND:\n", "2 LabelTwice"},
      {"BEGIN:\nLOOP:\n; note\n\nLOOP:\nEND:\n", "5 LabelTwice"},
      {"BEGIN:\nLOOP\nSYNC\nEND:\n", "2 BadLine; 3 BadLine"},
      {"BEGIN:\nadd A,1\nLOOP: ADD A,1\nEND:\n", "2 UnknownInstruction; 3 UnknownInstruction"},
      {"BEGIN:\nSEND:\n", ""},
      {"BEGIN:\nPRINT \"END:\"\n", ""},
      {"BEGIN:\n; END:\n", "-1 NoEnd"},
      {"; BEGIN:\nVAR N% 0\nEND:\n", "2 UnknownInstruction; -1 NoBegin"},
      {"BEGIN:\nEND:\nFOO 1\n", "3 UnknownInstruction"},
      // The list is in the order of the passes, not of the lines.
      {"BEGIN:\nJP NOWHERE\nFOO 1\n", "3 UnknownInstruction; -1 NoEnd; 2 NoLabel(NOWHERE)"},
      {"BEGIN:\n" + longest + ":\nJP " + longest + "\nEND:\n", ""},
      {"BEGIN:\nX" + longest + ":\nEND:\n", "2 LabelTooLong(X" + longest + ")"},
      {"BEGIN:\nPRINT \"" + operand.substr(2) + "\"\nEND:\n", ""},
      {"BEGIN:\nPRINT \"" + operand.substr(1) + "\"\nEND:\n",
       "2 OperandTooLong(\"" + operand.substr(1) + "\")"},
      {"BEGIN:\nFOO x" + operand + "\nEND:\n", "2 UnknownInstruction"},
      // The pieces of a line of more than 255 bytes count as lines.
      {"BEGIN:\n" + std::string(255, ' ') + "FOO 1\nEND:\n", "3 UnknownInstruction"},
  };
  ExpectFaults(rows, "");
}

TEST(SyntaxTest, LineNumbersGoOnBeyondSixteenBits) {
  std::string text = "BEGIN:\n";
  for (int i = 0; i < 100000; ++i) text += "INC Q\n";
  const auto syntax = Verify(text + "END:\n");
  ASSERT_EQ(syntax->GetErrorCount(), 100000u);
  EXPECT_EQ(syntax->GetError(99999).m_nLine, 100001);
}

TEST(SyntaxTest, UnreadableAndEmptyFiles) {
  CKVLSyntax syntax;
  EXPECT_EQ(syntax.LoadScript("/no/such/\xED\x8C\x8C\xEC\x9D\xBC.kvl"), -1);
  syntax._CompileMainScript1(-1);
  syntax._VerifyMainScript();
  ASSERT_EQ(Faults(syntax).substr(0, 17), "0 FileUnreadable(");
  ASSERT_EQ(syntax.GetErrorCount(), 3u);
  // "error : '/no/such/....kvl' ...", all of it in one encoding.
  EXPECT_EQ(Utf8FromCp949(syntax.GetError(0).m_strText),
            "error : '/no/such/\xED\x8C\x8C\xEC\x9D\xBC.kvl' 파일을 읽을 수가 없습니다...");
  EXPECT_EQ(Utf8FromCp949(syntax.GetError(1).m_strText),
            "error : line -1, 시작부분'BEGIN'을 찾을수 없습니다...");
  CKVLSyntax empty;
  EXPECT_EQ(empty.LoadScript("/dev/null"), 0);
  EXPECT_EQ(empty.GetErrorCount(), 0u);
  CKVLSyntax nothing;
  EXPECT_EQ(nothing.LoadScript(nullptr), -1);
}

TEST(SyntaxTest, MessagesAreCodePage949AndShowBytesUnchanged) {
  // The name is two bytes that the code page doesn't have.
  const auto syntax = Verify("TABLE_NAME \"\xFF\xFE\"\nTABLE_NAME \"\xFF\xFE\"\n" + kMain);
  ASSERT_EQ(syntax->GetErrorCount(), 1u);
  EXPECT_EQ(syntax->GetError(0).m_strText,
            "error : line 2, \xC5\xB0\xBF\xF6\xB5\xE5 '\"\xFF\xFE\"'\xB0\xA1 \xC1\xDF\xBA\xB9 "
            "\xBC\xB1\xBE\xF0\xB5\xC7\xBE\xFA\xBD\xC0\xB4\xCF\xB4\xD9...");
}

TEST(SyntaxTest, OperandAtFault) {
  struct COperandRow {
    std::string text;
    EFaultPlace place;
    int32_t operand;
  };
  const COperandRow rows[] = {
      {"VAR N 0\n" + kMain, EFaultPlace::Declaration, 0},
      {"DIM B$ 0\n" + kMain, EFaultPlace::Declaration, 1},
      {"OPEN FOO 1\n" + kMain, EFaultPlace::Declaration, 0},
      {"OPEN MEDIA 1\n" + kMain, EFaultPlace::Declaration, 1},
      {"OPEN MEDIA\n" + kMain, EFaultPlace::Declaration, -1},
      {"BEGIN:\nJP X, Y\nEND:\n", EFaultPlace::MainLine, -1},
      {"VAR N% 0\nBEGIN:\nCMP N, QQ\nEND:\n", EFaultPlace::MainLine, 1},
      {"BEGIN:\n", EFaultPlace::Script, -1},
  };
  for (const COperandRow& row : rows) {
    const auto syntax = Verify(row.text);
    ASSERT_EQ(syntax->GetErrorCount(), 1u) << row.text;
    EXPECT_EQ(syntax->GetError(0).m_place, row.place) << row.text;
    EXPECT_EQ(syntax->GetError(0).m_nOperand, row.operand) << row.text;
  }
  EXPECT_EQ(Verify("BEGIN:\nJP X, Y\nEND:\n")->GetError(0).m_nCommand, kJP);
}

// The reader yields no empty token, a host that fills the tokens itself may.
TEST(SyntaxTest, TokensOfTheHost) {
  CKVLSyntax syntax;
  EXPECT_EQ(syntax._CompileVariableScript(0), 0);
  const std::vector<std::string> rows[] = {
      {"VAR", "", "0"}, {"DIM", "A$", ""}, {"EXPORT", std::string(500, 'x')}, {""}};
  for (const auto& tokens : rows) {
    syntax.m_saToken = tokens;
    EXPECT_EQ(syntax._CompileVariableScript(4), -1);
  }
  EXPECT_EQ(Faults(syntax),
            "5 EmptyArgument; 5 EmptyArgument; 5 ExportNotFound; 5 BadStatementKind");
}

}  // namespace
}  // namespace kvl
