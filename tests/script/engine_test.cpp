// The pass: jumps, run flag, limits, what leaves the engine, and what survives a pass.
#include <gtest/gtest.h>

#include "script/test_engine.h"
#include "transport/line.h"

namespace kvl {
namespace {

using namespace std::string_view_literals;
using CEvents = std::vector<std::string>;

TEST(EngineTest, KeywordsAreExact) {
  CTestEngine test("", "");
  for (const CInstruction& instruction : kInstructions) {
    EXPECT_EQ(test.m_engine.GetKeywordMacro(instruction.m_keyword), instruction.m_nNumber);
  }
  EXPECT_EQ(std::size(kInstructions), 31u);
  EXPECT_EQ(test.m_engine.GetKeywordMacro("add"), 0);
}

TEST(EngineTest, LinesThatAreNoInstructionMakeNone) {
  CTestEngine test(
      "VAR N% 0",
      "A:\nA:\nINC\nWHAT N\nLATER: INC N\nB:\nADD N,,2\nL2345678901234567890123456789012:\n"
      "MOVE N, 12345678901234567890123456789012345678901234567890123456789012345678901234"
      "567890\nADD N,1,2,3,4,5");
  const auto& commands = test.m_engine.Commands();
  ASSERT_EQ(commands.size(), 5u);
  EXPECT_EQ(commands[0].m_nCommand, 0);
  EXPECT_EQ(commands[1].m_nCommand, 0);
  EXPECT_STREQ(commands[2].m_szOperand[1], "2");
  EXPECT_EQ(commands[3].m_nCommand, 0);  // an operand too long for its record
  EXPECT_EQ(commands[4].m_nOperand, 6);
  EXPECT_EQ(test.m_engine.FindLabelTable("BEGIN")->m_nIndex, 0);
  EXPECT_EQ(test.m_engine.FindLabelTable("A")->m_nIndex, 0);
  EXPECT_EQ(test.m_engine.FindLabelTable("B")->m_nIndex, 2);
  EXPECT_EQ(test.m_engine.FindLabelTable("END")->m_nIndex, 5);
  EXPECT_EQ(test.m_engine.FindLabelTable("L2345678901234567890123456789012"), nullptr);
  test.Run();
  EXPECT_EQ(test.Show("N"), "3");
}

TEST(EngineTest, EachConditionTestsItsFlag) {
  // Which of JPE JPNE JPL JPLE JPG JPGE is taken for left = 2, 3, 4 against 3.
  const struct {
    const char* left;
    const char* taken;
  } rows[] = {{"2", "011100"}, {"3", "100101"}, {"4", "010011"}};
  const char* keywords[] = {"JPE", "JPNE", "JPL", "JPLE", "JPG", "JPGE"};
  for (const auto& row : rows) {
    std::string taken;
    for (const char* keyword : keywords) {
      CTestEngine test("VAR N% 0\nVAR MISSED% 0",
                       fmt::format("MOVE N, {}\nCMP N, 3\n{} END\nINC MISSED", row.left, keyword));
      test.Run();
      taken += test.Show("MISSED") == "0" ? '1' : '0';
    }
    EXPECT_EQ(taken, row.taken) << row.left;
  }
}

TEST(EngineTest, Jumps) {
  const CEngineRow rows[] = {
      {"VAR N% 0", "JP OVER\nINC N\nOVER:\nADD N, 10", "", "N=10"},
      {"VAR N% 0", "INC N\nJP NOWHERE\nINC N", "", "N=1"},            // ends the pass
      {"VAR N% 0", "CMP N, 0\nJPE NOWHERE\nINC N", "", "N=1"},        // goes on
      {"VAR N% 0", "JPE END\nJPNE END\nJPLE END\nINC N", "", "N=1"},  // no CMP yet
      {"VAR N% 0", "INC N\nCMP N, 5\nJPL BEGIN\nADD N, 100", "", "N=105"},
      {"VAR N% 0\nVAR I% 3", "L:\nINC N\nDEC I\nCMP I, 0\nJPG L\nJP LAST\nINC N\nLAST:", "", "N=3"},
  };
  for (const CEngineRow& row : rows) EXPECT_EQ(Outcome(row), row.expected) << row.main;
}

// Rows of steps that run at once must do what their steps do one by one, entered anywhere.
TEST(EngineTest, RowsDoWhatTheirStepsDo) {
  const char* declarations =
      "DIM BUF$ 64\nDIM PART$ 12\nVAR I% 0\nVAR N% 0\nVAR C$ 0\nVAR W% 0\nVAR SUM$ 0\nVAR X% "
      "0\nVAR LAST% 20";
  const char* mains[] = {
      "IN BUF, N\nL:\nMOVE C, BUF[I]\nADD SUM, C\nXOR X, C\nINC I\nCMP I, N\nJPL L",
      "IN BUF, N\nL:\nMOVE W, BUF[I]\nXOR X, W\nADD SUM, W\nINC I\nCMP I, 30\nJPL L",
      "IN BUF, N\nL:\nMOVE C, BUF[I]\nCMP C, 104\nJPE STOP\nINC I\nCMP I, LAST\nJPLE L\nSTOP:",
      "JP MID\nL:\nINC I\nMID:\nCMP I, 10\nJPL L\nMOVE W, BUF[I]\nCMP W, SUM\nJPG E\nINC X\nE:",
      "IN BUF, N\nMOVE W, BUF[I]\nCMP C, W\nJPNE END\nINC X",
      "IN BUF, N\nL:\nMOVE C, BUF[I]\nXOR X, C\nINC I\nCMP I, N\nJPL L",
      ("IN BUF, N\nL:\nCOPY PART, BUF[I], 8\nFIND PART, \"h\", W\nCMP W, 0\nJPL END\n"
       "COPY PART[W], PART, 0\nADD I, W\nINC I\nINC X\nCMP I, N\nJPL L"),
      "IN BUF, N\nCOPY PART, BUF[I], N\nFIND PART, <80>, W\nINC X",
      "IN BUF, N\nCOPY BUF, BUF[1], 4\nFIND BUF, \"d\", W",
      "IN BUF, N\nCOPY PART, BUF[1], 9\nFIND BUF, \"h\", W",
  };
  for (const char* main : mains) {
    CTestEngine rows(declarations, main);
    CTestEngine steps(declarations, main);
    steps.m_engine.SetMaxSteps(100000);
    for (const std::string_view batch :
         {"abcdefghijklmnopqrstuvwxyz"sv, "\xFF\x80"sv, ""sv, "h"sv, "ab\0hhdh\x80"sv}) {
      rows.Run(batch);
      steps.Run(batch);
      for (const char* what : {"flags", "xBUF", "xPART", "I", "N", "C", "W", "SUM", "X"}) {
        EXPECT_EQ(rows.Show(what), steps.Show(what)) << what << " after " << main;
      }
    }
  }
}

TEST(EngineTest, WhatSurvivesAPass) {
  CTestEngine test("VAR N% 0\nVAR SEEN% 0",
                   "JPGE SECOND\nCMP N, 0\nDELAY 20\nJP END\nSECOND:\nINC SEEN");
  test.Run();
  EXPECT_EQ(test.Show("SEEN"), "0");
  test.Run();
  EXPECT_EQ(test.Show("SEEN"), "1");
  EXPECT_EQ(test.m_engine.GetOutInterval(), 20);
}

TEST(EngineTest, TheRunFlagIsTestedBeforeEveryInstruction) {
  CTestEngine test("VAR N% 0", "INC N\nSYNC 99\nINC N\nL:\nJP L");
  test.Run();
  EXPECT_EQ(test.Show("N"), "1");
  test.Run();  // the flag is down from the start
  EXPECT_EQ(test.Show("N"), "1");
}

TEST(EngineTest, StepLimit) {
  CTestEngine test("VAR N% 0", "L:\nINC N\nCMP N, 0\nJPNE L");
  test.m_engine.SetMaxSteps(7);
  test.Run();
  EXPECT_TRUE(test.m_engine.LimitReached());
  EXPECT_EQ(test.Show("N"), "3");
  CTestEngine exact("VAR N% 0", "INC N\nINC N");
  exact.m_engine.SetMaxSteps(2);
  exact.Run();
  EXPECT_FALSE(exact.m_engine.LimitReached());  // no further instruction was due
}

TEST(EngineTest, AnEmptyScriptHasNoPass) {
  CTestOwner owner;
  CKVL engine(&owner, "");
  EXPECT_EQ(engine.Begin(nullptr, 0), -1);
  EXPECT_EQ(engine._CompileMainScript1(engine.LoadText("BEGIN:\nEND:\n")), 0);
  EXPECT_EQ(engine.Begin(nullptr, 0), -1);
}

TEST(EngineTest, HandlersRunOneRecord) {
  CTestEngine test("VAR N% 5\nDIM B$ 4", "L:\nADD N, 2\nJPE L\nNOT N");
  const CCommandTable& add = test.m_engine.Commands()[0];
  test.m_engine._Sub(&add);
  EXPECT_EQ(test.Show("N"), "3");
  EXPECT_EQ(test.m_engine._Jp_condition(&test.m_engine.Commands()[1], kJPE), -1);
  EXPECT_EQ(test.m_engine._Jp(&test.m_engine.Commands()[1]), 0);
  EXPECT_EQ(test.m_engine._Jp(&add), -1);
}

TEST(EngineTest, Output) {
  CTestEngine test("DIM BUF$ 400\nVAR N% 65\nEQU E \"e<0D>\"\nASSIGN A \"a\"",
                   "OUT \"\"\nOUT \"A<00>B<0D>\"\nOUT E\nOUT A\nOUT N\nOUT NONE\nOUT \"bad>\"\n"
                   "IN BUF, N\nOUT BUF\nDELAY 5\nOUT \"ab\"\nSLEEP 30\nDELAY 0\nSYNC 12");
  test.Run("x>");
  EXPECT_EQ(test.m_owner.m_events,
            (CEvents{"out 4100420d 0", "out 650d 0", "out 61 0", "out 6162 5", "pace 5", "pace 5",
                     "sleep 30", "sync 12"}));
  test.m_owner.m_events.clear();
  test.Run(std::string(300, 'x'));
  EXPECT_EQ(test.m_owner.m_events[3], "out " + Hex(std::vector<uint8_t>(256, 'x')) + " 0");
}

TEST(EngineTest, Prints) {
  const struct {
    const char* operands;
    const char* plain;
    const char* extended;
  } rows[] = {
      {"\"AB<43>\"", "AB<43>", "ABC"},
      {"\"AB\", T", "AB", "AB"},
      {"\"AB\", H", "41 42 ", "41 42 "},
      {"\"A<00>B\", H", "41 3c 30 30 3e 42 ", "41 00 42 "},
      {"\"A<00>B\"", "A<00>B", "A"},
      {"\"A>B\"", "A>B", "A"},
      {"\"A>B\", H", "41 3e 42 ", ""},
      {"\"\"", "", ""},
      {"N", "-1", "-1"},
      {"N, H", "ffffffff", "ffffffff"},
      {"B, T", "-56", "-56"},
      {"B, H", "ffffffc8", "ffffffc8"},
      {"D", "-2", "-2"},
      {"BUF", "\xC8>", ""},
      {"OK, H", "61 62 ", "61 62 00 00 "},
      {"OK", "ab", "ab"},
      {"E, x", "65 ", "65 "},
      {"WIDE, H", "", "00 00 00 00 00 00 00 00 "},
  };
  for (const auto& row : rows) {
    CTestEngine test(
        "VAR N% -1\nVAR B$ 200\nVAR D# -2.9\nDIM BUF$ 4\nDIM OK$ 4\nEQU E \"e\"\nDIM WIDE% 2\nVAR "
        "L% 0",
        fmt::format("IN BUF, L\nCOPY OK, \"ab\", 2\nPRINT {0}\nPRINTEX {0}\nPRINT NONE\nPRINT N[0]",
                    row.operands));
    test.Run("\xC8>");
    EXPECT_EQ(test.m_owner.m_events,
              (CEvents{std::string("print ") + row.plain, std::string("print ") + row.extended}))
        << row.operands;
  }
}

// A declared name may hold a bracket; by plain name it is itself and no element of another one.
TEST(EngineTest, ANameWithABracketIsNoElement) {
  CTestEngine test("DIM A$ 4\nDIM A[0]$ 9000\nVAR B[1]% 77\nVAR B% 5\nEQU C \"const\"\nDIM C[1]$ 9",
                   "COPY A, \"own\", 3\nPRINTEX A[0]\nPRINT B[1]\nCLEAR C[1]\nOUT A[0]\nOUT C");
  test.Run();
  EXPECT_EQ(test.m_owner.m_events, (CEvents{"print ", "print 77", "out 636f6e7374 0"}));
}

class CThrowingLine : public CLine {
 public:
  bool IsOpen() const override { return true; }
  int32_t Write(const uint8_t*, int32_t) override { throw 1; }
  void Interrupt() override {}
};

TEST(EngineTest, AFailureOnTheLineNeverStopsTheScript) {
  CTestEngine test("VAR N% 0", "OUT \"a\"\nDELAY 1\nOUT \"b\"\nINC N");
  CThrowingLine line;
  test.m_engine.SetLine(1, &line);
  test.Run();
  EXPECT_EQ(test.Show("N"), "1");
}

TEST(EngineTest, PrintsAreCutAtTheirAreas) {
  CTestEngine test("DIM BUF$ 5000\nVAR L% 0", "IN BUF, L\nPRINT BUF\nPRINT BUF, H\nPRINTEX BUF");
  test.Run(std::string(4999, 'x'));
  std::vector<size_t> sizes;
  for (const CPrintMessage& message : test.m_engine.Prints().Take()) {
    sizes.push_back(message.m_strText.size());
  }
  EXPECT_EQ(sizes, (std::vector<size_t>{4095, 1365 * 3, 256}));
}

TEST(PrintListTest, KeepsTheNewestAndCountsTheRest) {
  CPrintList list;
  for (size_t i = 0; i < CPrintList::kMaxMessages + 5; ++i) list.Append(std::to_string(i));
  const auto messages = list.Messages();
  ASSERT_EQ(messages.size(), CPrintList::kMaxMessages);
  EXPECT_EQ(messages.front().m_strText, "5");
  EXPECT_EQ(list.Dropped(), 5u);
  EXPECT_EQ(list.Take().size(), CPrintList::kMaxMessages);
  EXPECT_TRUE(list.Messages().empty());
}

TEST(EngineTest, OnlyAPassWithoutAnyEffectIsIdle) {
  const struct {
    const char* main;
    bool idle;
  } rows[] = {
      {"IN BUF, L\nCMP L, 0\nJPE END\nINC N", true},
      {"MOVE N, 5\nCLEAR BUF\nCMP N, 5", true},
      {"INC N", false},
      {"SLEEP 0", false},
      {"OUT \"x\"", false},
      {"OUT \"\"", true},
      {"PRINT \"x\"", false},
      {"SYNC 1", false},
      {"SYNC 99", false},
      {"NOT N\nNOT N\nNOT N", false},
      {"DELAY 3", true},
      {"CMP N, 0\nJPE A\nMOVE N, 0\nJP END\nA:\nMOVE N, 1", false},
      {"INC N\nCOPY BUF[7], \"x\", 1\nDEC N\nCOPY BUF[7], \"\", 0", true},
  };
  for (const auto& row : rows) {
    CTestEngine test("VAR N% 0\nVAR L% 0\nDIM BUF$ 8", row.main);
    test.m_engine.BeginIdle();  // settles what the first pass sets
    EXPECT_EQ(test.m_engine.BeginIdle(), row.idle) << row.main;
  }
  CTestEngine fresh("VAR N% 0", "DELAY 3\nCMP N, 1");
  EXPECT_FALSE(fresh.m_engine.BeginIdle());  // flags and interval change in the first pass
}

}  // namespace
}  // namespace kvl
