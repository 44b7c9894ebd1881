#include <gtest/gtest.h>

#include <cmath>

#include "script/test_engine.h"

namespace kvl {
namespace {

constexpr const char* kDeclarations =
    "VAR I% 4\nVAR J% 1\nVAR B$ -56\nVAR D# 1.9\nDIM BUF$ 10\nDIM IDX% 4\nDIM F# 2\n"
    "EQU MSG \"abcdef\"\nEQU NONE \"\"\nVAR I% 9";
constexpr const char* kFill =
    "COPY BUF, \"ABCDEFGHI\", 9\nCOPY IDX[8], \"<\", 1\nMOVE I, 4\nCOPY IDX[4], \"!\", 1";

TEST(OperandTest, Values) {
  const struct {
    const char* operand;
    double value;
  } rows[] = {
      {"BUF", 'A'},
      {"BUF[2]", 'C'},
      {"BUF[2.9]", 'C'},
      {"BUF[I+1]", 'F'},
      {"BUF[I-1]", 'D'},
      {"BUF[I+-2]", 'C'},
      {"BUF[I-+2]", 'G'},
      {"BUF[1+I]", 'F'},
      {"BUF[I+J]", 'F'},
      {"BUF[I-J+1]", 'E'},
      {"BUF[I+D]", 'F'},
      {"BUF[i]", 'A'},
      {"BUF[i+2]", 'C'},
      {"BUF[+1]", 'B'},
      {"BUF[]", 'A'},
      {"BUF[", 'A'},
      {"BUF[1", 'A'},
      {"BUF[12", 'B'},
      {"BUF[1H]", 'B'},
      {"BUF[NO]", 'A'},
      {"BUF[8]", 'I'},
      {"BUF[9]", 0},
      {"BUF[10]", 0},
      {"BUF[-1]", 0},
      {"BUF[4294967297]", 'B'},  // the low 32 bits count
      {"BUF[1E300]", 'A'},
      {"IDX[2]", '<'},
      {"IDX[4]", 0},
      {"F[1]", 0},
      {"F[2]", 0},
      {"I", 4},
      {"I[5]", 4},
      {"B", -56},
      {"D", 1.9},
      {"MSG", 0},
      {"MSG[1]", 0},
      {"NO", 0},
      {"NO[1]", 0},
      {"", 0},
      {"BUF[IDX[1]-33]", 'A'},
  };
  CTestEngine test(kDeclarations, kFill);
  test.Run();
  for (const auto& row : rows) {
    EXPECT_EQ(test.m_engine.GetBufferValue(row.operand), row.value) << row.operand;
  }
}

TEST(OperandTest, NestedIndexesReadAsTheyAreSplit) {
  CTestEngine test(kDeclarations, "COPY BUF, \"ABCDEFGHI\", 9\nCOPY IDX[4], \"<\", 0");
  test.Run();
  // IDX is all 0. BUF[IDX[J+1]] is the sum of IDX[J, read as IDX[0], and 1.
  EXPECT_EQ(test.m_engine.GetBufferValue("BUF[IDX[J+1]]"), 'B');
  EXPECT_EQ(test.m_engine.GetBufferValue("BUF[IDX[2]]"), 'A');
}

TEST(OperandTest, PlacesCountBytesAndStayInside) {
  CTestEngine test(kDeclarations, kFill);
  test.Run();
  const struct {
    const char* operand;
    const char* variable;  // null: no place
    int offset;
  } rows[] = {
      {"BUF", "BUF", 0},       {"BUF[9]", "BUF", 9}, {"BUF[10]", nullptr, 0},
      {"BUF[-1]", nullptr, 0}, {"IDX[1]", "IDX", 1}, {"IDX[15]", "IDX", 15},
      {"IDX[16]", nullptr, 0}, {"MSG[3]", "MSG", 3}, {"MSG[5]", "MSG", 5},
      {"MSG[6]", nullptr, 0},  {"NONE", nullptr, 0}, {"I[7]", "I", 0},
      {"NO", nullptr, 0},
  };
  for (const auto& row : rows) {
    const uint8_t* expected = nullptr;
    if (row.variable != nullptr) {
      expected = BytesOf(*test.m_engine.FindVariableTable(row.variable)).data() + row.offset;
    }
    EXPECT_EQ(test.m_engine.GetBufferPointer(row.operand), expected) << row.operand;
  }
}

TEST(OperandTest, KindsAndIndexSums) {
  CTestEngine test(kDeclarations, "");
  CKVL& engine = test.m_engine;
  EXPECT_EQ(engine.GetVariableType("BUF[I]"), kDim);
  EXPECT_EQ(engine.GetVariableType("I"), kVar);
  EXPECT_EQ(engine.GetVariableType("MSG[3]"), kEqu);
  EXPECT_EQ(engine.GetVariableType("NO"), -1);
  const char* operand = "BUF[I-2.5+D]";
  EXPECT_EQ(engine.CalcOperation(operand, operand + 3), 4 - 2.5 + 1.9);
}

TEST(OperandTest, SetBufferValueIsCutAtTheVariablesEnd) {
  CTestEngine test("VAR I% 0\nVAR AFTER% 77\nDIM B$ 4", "");
  const uint8_t bytes[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  test.m_engine.SetBufferValue("I", TAG_FLOAT, bytes, 16);
  test.m_engine.SetBufferValue("B[2]", TAG_BYTE, bytes, 16);
  test.m_engine.SetBufferValue("NO", TAG_BYTE, bytes, 16);
  test.m_engine.SetBufferValue("B", TAG_BYTE, bytes, -1);
  EXPECT_EQ(test.Show("xI"), "01020304");
  EXPECT_EQ(test.Show("xB"), "00000102");
  EXPECT_EQ(test.Show("AFTER"), "77");
}

TEST(OperandTest, NumericOperandForms) {
  const struct {
    const char* operand;
    double value;
  } rows[] = {
      {"26", 26},
      {"1.5E2", 150},
      {"-1.5", -1.5},
      {"+7", 7},
      {"-1AH", -1},
      {"1AH", 26},
      {"0FFFFFFFFH", -1},
      {"FFH", 0},
      {"101B", 5},
      {"0B", 0},
      {"123456789AH", 0x3456789A},
      {"12B", 4},
      {"I", 4},
      {"BUF[1]", 0},
      {"0x10", 0},
      {"-inf", 0},
      {"+nan", 0},
      {"\xB1", 0},
      {"-", 0},
  };
  CTestEngine test(kDeclarations, "");
  for (const auto& row : rows) {
    EXPECT_EQ(test.m_engine.GetOperandValue(row.operand), row.value) << row.operand;
  }
}

TEST(DecimalTest, ReadsItsGrammarAndNothingElse) {
  const struct {
    const char* text;
    double value;
  } rows[] = {
      {"  \t\r\n-12.50kg", -12.5},
      {"+.5", 0.5},
      {"5.", 5},
      {".", 0},
      {"-.e5", 0},
      {"1e", 1},
      {"1e+", 1},
      {"2E-3", 0.002},
      {"0x1F", 0},
      {"inf", 0},
      {"-infinity", 0},
      {"nan(1)", 0},
      {"+ 12", 0},
      {"1,5", 1},
      {"1e400", INFINITY},
      {"-1e400", -INFINITY},
      {"1e-400", 0},
      {"0e99999999999", 0},
      {"0.000000000000000000000000000001", 1e-30},
      {"123456789012345678901234567890", 123456789012345678901234567890.0},
      {"9007199254740993", 9007199254740993.0},
      {"0.1", 0.1},
      {"3.14159265358979", 3.14159265358979},
      {"1.7976931348623157e308", 1.7976931348623157e308},
      {"4.9e-324", 4.9e-324},
      {"00000000000000000000000012", 12},
  };
  for (const auto& row : rows) EXPECT_EQ(ParseDouble(row.text), row.value) << row.text;
  bool overflow = true;
  EXPECT_EQ(ParseInteger(" -12x", &overflow), -12);
  EXPECT_FALSE(overflow);
  EXPECT_EQ(ParseInteger("99999999999999999999", &overflow), 2147483647);
  EXPECT_TRUE(overflow);
}

TEST(DecimalTest, NarrowingTruncatesAndKeepsTheLowBits) {
  EXPECT_EQ(NarrowToInt32(-2.9), -2);
  EXPECT_EQ(NarrowToInt32(3000000000.0), -1294967296);
  EXPECT_EQ(NarrowToInt32(1e30), 0);
  EXPECT_EQ(NarrowToInt32(NAN), 0);
  EXPECT_EQ(NarrowToInt32(-INFINITY), 0);
  EXPECT_EQ(NarrowToInt8(255.9), -1);
}

TEST(EscapesTest, Notation) {
  const struct {
    const char* raw;
    const char* bytes;
    int32_t result;
  } rows[] = {
      {"a<41><4a>>><<", "61414a3e3c", 5},
      {"<0D><0a>", "0d0a", 2},
      {"", "", 0},
      {"ab>", "6162", -1},
      {"ab<4>", "6162", -1},
      {"ab<414>", "6162", -1},
      {"ab<41", "6162", -1},
      {"a<G1>", "61", -1},
      {"\xB0", "b0", 1},
      {"<4<<41>", "3c", -1},  // the digit of an escape that never closed still counts
  };
  for (const auto& row : rows) {
    uint8_t bytes[32];
    const std::string_view raw = row.raw;
    EXPECT_EQ(CKVL::TranslateString(reinterpret_cast<const uint8_t*>(raw.data()), bytes,
                                    static_cast<int32_t>(raw.size())),
              row.result)
        << row.raw;
    const size_t written = std::string_view(row.bytes).size() / 2;
    EXPECT_EQ(Hex({bytes, written}), row.bytes) << row.raw;
  }
  EXPECT_EQ(CKVL::GetCode16('a', '5'), '\xA5');
  EXPECT_EQ(CKVL::GetCode16('G', 'G'), '\x10');
  EXPECT_EQ(CKVL::Hex2Dec("1AH"), 26);
  EXPECT_EQ(CKVL::Hex2Dec("H"), 0);
  EXPECT_EQ(CKVL::Bin2Dec("101B"), 5);
}

}  // namespace
}  // namespace kvl
