#include <gtest/gtest.h>

#include "script/test_engine.h"

namespace kvl {
namespace {

TEST(DeclarationsTest, NamesAndValues) {
  const CEngineRow rows[] = {
      {"VAR COUNT% 5", "", "", "COUNT=5; xCOUNT%=undeclared"},
      {"EQU MSG% \"a b\"", "", "", "'MSG%=a b; xMSG=undeclared"},
      {"VAR FLAG$ 300", "", "", "FLAG=44"},
      {"VAR FLAG$ -1", "", "", "xFLAG=ff; FLAG=-1"},
      {"VAR RATE# 2.5\nVAR R% 2.5", "", "", "RATE=2.5; R=2"},
      {"VAR A% 1FH\nVAR B% 0x10\nVAR C# nan\nVAR D# inf", "", "", "A=1; B=0; C=0; D=0"},
      {"VAR A% 5000000000\nVAR B% -5000000000", "", "", "A=2147483647; B=-2147483648"},
      {"VAR A#", "", "", "A=0"},  // a missing value is 0
      {"DIM B% 2", "", "", "xB=0000000000000000"},
      {"DIM B# 1\nDIM C$ 0\nDIM D$", "", "", "xB=0000000000000000; xC=; xD="},
      {"EQU E \"\"\nASSIGN A \"<41>\"", "", "", "xE=; 'A=<41>"},
      {"EQU E \"\nEQU F x", "", "", "xE=; xF="},  // fewer than two bytes: no text
      {"MYVAR A% 1\nVARDIM B$ 2", "", "", "A=1; xB=0000"},
      {"VAR A% 1\nVAR A% 2", "", "", "A=1"},
      {"VAR A% 1 2 3 4 5 6 7 8", "", "", "A=1"},
      // No size without a known suffix, and no name, size or count beyond its limit.
      {"VAR A 1\nDIM B 3\nVAR\nEQU", "", "", "xA=undeclared; xB=undeclared; x=undeclared"},
      {"DIM B$ -1\nDIM C# 3000000\nDIM D$ 16777216", "MOVE X, 1", "",
       "xB=undeclared; xC=undeclared; D=0"},
      {"VAR A234567890123456789012345678901% 1\nVAR B2345678901234567890123456789012% 1", "", "",
       "A234567890123456789012345678901=1; xB2345678901234567890123456789012=undeclared; "
       "xB234567890123456789012345678901=undeclared"},
  };
  for (const CEngineRow& row : rows) EXPECT_EQ(Outcome(row), row.expected) << row.declarations;
}

TEST(DeclarationsTest, AllBlocksTogetherHaveALimit) {
  std::string declarations;
  for (int i = 0; i < 20; ++i) declarations += fmt::format("DIM B{}$ 16777216\n", i);
  CTestEngine test(declarations, "");
  EXPECT_NE(test.m_engine.FindVariableTable("B15"), nullptr);
  EXPECT_EQ(test.m_engine.FindVariableTable("B16"), nullptr);
}

TEST(DeclarationsTest, ExportCopiesWhatIsThereAtLoad) {
  CTestEngine test("EXPORT N\nVAR N% 7\nEXPORT N\nEXPORT NONE\nEXPORT N%", "INC N");
  test.Run();
  ASSERT_EQ(test.m_engine.Exports().size(), 1u);
  const CExportTable& record = test.m_engine.Exports()[0];
  EXPECT_EQ(record.m_nKind, kVar);
  EXPECT_EQ(record.m_nType, kInteger);
  EXPECT_EQ(Load<int32_t>(record.m_pValue), 7);
}

TEST(DeclarationsTest, RemovingTheTablesLeavesAnEngineThatRuns) {
  CTestEngine test("VAR N% 7\nDIM B$ 3", "LOOP:\nINC N\nJP LOOP2\nLOOP2:\nIN B, N");
  test.Run();
  test.m_engine.RemoveVariableTable();
  test.Run("abc");
  EXPECT_EQ(test.m_engine.FindVariableTable("N"), nullptr);
  test.m_engine.RemoveCommandTable();
  EXPECT_EQ(test.m_engine.Begin(nullptr, 0), -1);
  test.m_engine.RemoveLabelTable();
  test.m_engine.RemoveExportTable();
  EXPECT_EQ(test.m_engine.FindLabelTable("LOOP"), nullptr);
}

}  // namespace
}  // namespace kvl
