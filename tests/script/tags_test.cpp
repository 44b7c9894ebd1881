// PUT and GET against a table of this process.
#include <gtest/gtest.h>

#include "script/test_engine.h"
#include "store/TableOwner.h"
#include "store/raw_table.h"

namespace kvl {
namespace {

constexpr char kTable[] = "TAGS";

// Each tag is named by the EQU T and its own name; NONE is not in the table.
constexpr char kDeclarations[] =
    "EQU TB \"B\"\nEQU TI \"I\"\nEQU TL \"L\"\nEQU TF \"F\"\nEQU TT \"T\"\nEQU TLONG \"LONG\"\n"
    "EQU TI3 \"I3\"\nEQU TI8 \"I8\"\nEQU TF2 \"F2\"\nEQU TB3 \"B3\"\nEQU T9 \"T9\"\n"
    "EQU TCUT \"CUT\"\nEQU TSTUB \"STUB\"\nEQU TNONE \"NONE\"\nASSIGN TEMPTY \"\"\n"
    "EQU ABC \"abc\"\nDIM BUF$ 16\nDIM LONG$ 400\nDIM NAME$ 1\nDIM WORD% 2\n"
    "VAR S$ 0\nVAR N% -1\nVAR D# 2.9\n";

std::string Zeros(size_t count) {
  return std::string(count, '\0');
}

// What any owner could have laid, oddities included.
std::string Table(uint32_t dwSize) {
  const std::string overlong = TagArea(kTagInteger, Zeros(4)).substr(0, kTagHead + 2);
  return TableBytes(
      {RecordBytes(u"B", TagArea(kTagByte, Zeros(1))),
       RecordBytes(u"I", TagArea(kTagInteger, Zeros(2))),
       RecordBytes(u"L", TagArea(kTagInteger, Zeros(4))),
       RecordBytes(u"F", TagArea(kTagFloat, Zeros(4))),
       RecordBytes(u"T", TagArea(kTagText, Zeros(10))),
       RecordBytes(u"LONG", TagArea(kTagText, Zeros(300))),
       RecordBytes(u"I3", TagArea(kTagInteger, Zeros(3))),
       RecordBytes(u"I8", TagArea(kTagInteger, Zeros(8))),
       RecordBytes(u"F2", TagArea(kTagFloat, Zeros(2))),
       RecordBytes(u"B3", TagArea(kTagByte, Zeros(3))), RecordBytes(u"T9", TagArea(9, Zeros(4))),
       RecordBytes(u"CUT", overlong), RecordBytes(u"STUB", "stub"),
       RecordBytes(u"L", TagArea(kTagInteger, Zeros(4)))},
      dwSize);
}

class TagsTest : public testing::Test {
 protected:
  TagsTest() : m_table(kTable, 64 * 1024), m_strLaid(Table(64 * 1024)) { m_table.Lay(m_strLaid); }

  // The tags that the one pass of a script has changed, and then the variables that `show` names.
  std::string Run(const char* main, const std::string& show = "") {
    m_table.Lay(m_strLaid);
    CTestEngine test(kDeclarations, main, kTable);
    test.Run("0123456789abcdef");
    std::string outcome;
    for (const std::string& event : test.m_owner.m_events) {
      outcome += outcome.empty() ? event : "; " + event;
    }
    if (!show.empty()) outcome += (outcome.empty() ? "" : "; ") + test.Show(show);
    return outcome;
  }

  bool IsUntouched() const { return m_table.Bytes(0, m_strLaid.size()) == m_strLaid; }

  CRawTable m_table;
  const std::string m_strLaid;
};

TEST_F(TagsTest, PutWritesByTheTagsType) {
  const struct {
    const char* main;
    std::string expected;
  } rows[] = {
      {"PUT TB, 300", "put B 2c"},
      {"PUT TB, -1", "put B ff"},
      {"PUT TI, 2.9", "put I 0200"},
      {"PUT TI, -2.9", "put I feff"},
      {"PUT TI, 70000", "put I 7011"},
      {"PUT TL, +70000", "put L 70110100"},
      {"PUT TL, 10H", "put L 0a000000"},  // atof knows no hexadecimal
      {"PUT TF, 1.5", "put F 0000c03f"},
      {"PUT TF, 0.1", "put F cdcccc3d"},
      {"PUT TI, D", "put I 0200"},
      {"PUT TF, D", "put F 9a993940"},
      {"PUT TL, N", "put L ffffffff"},
      {"PUT TB, S", "put B 00"},
      // a literal is a text as well, and its own count
      {"PUT TT, 12", "put T 31320000000000000000"},
      {"PUT TT, -1.5, 2", "put T 2d312e35000000000000"},
      {"PUT TT, 123456789012", "put T 31323334353637383930"},
      // a text is as long as its count says, and ends at its first zero byte
      {"PUT TT, \"abc\", 3", "put T 61626300000000000000"},
      {"PUT TT, \"abc\", 2", "put T 61620000000000000000"},
      {"PUT TT, \"abc\", 9", "put T 61626322000000000000"},
      {"PUT TT, ABC, 9", "put T 61626300000000000000"},
      {"PUT TT, ABC[1], 1", "put T 62000000000000000000"},
      {"IN BUF, N\nPUT TT, BUF[14], 9", "put T 65000000000000000000"},
      {"IN BUF, N\nMOVE N, 4\nPUT TT, BUF, N", "put T 30313233000000000000"},
      // the tail of a longer text stays
      {"PUT TT, \"abcdef\", 6\nPUT TT, \"xy\", 2",
       "put T 61626364656600000000; put T 78796364656600000000"},
      // cut at the tag's size, and at 255 bytes
      {"IN BUF, N\nPUT TT, BUF, 16", "put T 30313233343536373839"},
      {"COPY BUF, \"L\", 1\nPUT BUF, 5", "put L 05000000"},  // a name found at run time
      {"COPY NAME, \"L\", 1\nPUT NAME, 5", "put L 05000000"},
      {"MOVE N, 76\nPUT N, 5", "put L 05000000"},
  };
  for (const auto& row : rows) EXPECT_EQ(Run(row.main), row.expected) << row.main;
}

TEST_F(TagsTest, PutTakesAtMost255BytesOfAText) {
  std::string main = "COPY BUF, \"0123456789abcde\", 15\n";
  for (int i = 0; i < 20; ++i) main += fmt::format("COPY LONG[{}], BUF, 15\n", 15 * i);
  const std::string put = Run((main + "PUT TLONG, LONG, 300").c_str());
  EXPECT_EQ(put.size(), std::string("put LONG ").size() + 600);
  EXPECT_EQ(put.substr(put.size() - 92, 4), "6500") << put;  // the last is byte 254
}

TEST_F(TagsTest, PutWithoutAFormForTheTagChangesNothing) {
  for (const char* main : {"PUT TT, \"abc\"",   "PUT TT, \"abc\", 0", "PUT TT, ABC",
                           "PUT TT, BUF, 5",    "PUT TT, N",          "MOVE N, -3\nPUT TT, ABC, N",
                           "PUT TL, \"12\", 2", "PUT TL, ABC, 3",     "PUT TL, WORD[0]",
                           "PUT TL, BUF[0]",    "PUT TT, BUF[99], 3", "PUT TT, NOSUCH, 3",
                           "PUT TNONE, 1",      "PUT TEMPTY, 1",      "PUT NOSUCH, 1",
                           "PUT BUF[99], 1",    "PUT TI3, 1",         "PUT TF2, 1",
                           "PUT T9, 1",         "PUT T9, \"abc\", 3", "PUT TCUT, 1",
                           "PUT TSTUB, 1"}) {
    EXPECT_EQ(Run(main), "") << main;
    EXPECT_TRUE(IsUntouched()) << main;
  }
}

TEST_F(TagsTest, PutIntoANumberOfAnotherSizeStaysInsideIt) {
  EXPECT_EQ(Run("PUT TI8, -1"), "put I8 ffffffff00000000");
  EXPECT_EQ(Run("PUT TB3, -1"), "put B3 ff0000");
}

TEST_F(TagsTest, GetCopiesBytesByTheTagsType) {
  const std::string text = "PUT TT, \"0123456789\", 10\n";
  const struct {
    std::string main;
    const char* show;
    const char* expected;  // the end of the outcome
  } rows[] = {
      {"PUT TB, 200\nGET S, TB", "xS", "c8"},
      {"PUT TB, 5\nGET N, TB", "xN", "05ffffff"},
      {"PUT TB, 5\nGET BUF[3], TB", "xBUF", "00000005000000000000000000000000"},
      {"PUT TI, 5\nGET N, TI", "xN", "0500ffff"},
      {"CLEAR N\nPUT TI, -1\nGET N, TI", "N", "65535"},
      {"PUT TL, -70000\nGET N, TL", "N", "-70000"},
      {"PUT TL, 7\nGET D, TL", "xD", "0700000033330740"},
      {"PUT TL, 7\nGET WORD[4], TL", "xWORD", "0000000007000000"},  // the index counts bytes
      {"PUT TF, 1.5\nGET N, TF", "N", "1069547520"},
      {text + "GET BUF, TT, 4", "'BUF", "0123"},
      {text + "GET BUF, TT, 20", "'BUF", "0123456789"},
      {text + "MOVE N, 3\nGET BUF[1], TT, N", "xBUF", "00303132000000000000000000000000"},
      {text + "GET BUF[14], TT, 10", "xBUF", "00000000000000000000000000003031"},
      // no count, nothing that fits, no tag, no destination, no number in the tag
      {text + "GET BUF, TT", "'BUF", ""},
      {text + "MOVE S, -1\nGET BUF, TT, S", "'BUF", ""},
      {"PUT TL, 7\nGET S, TL", "xS", "00"},
      {"PUT TL, 7\nGET BUF[13], TL", "xBUF", "00000000000000000000000000000000"},
      {"PUT TI, 7\nGET S, TI", "xS", "00"},
      {"GET N, TNONE", "N", "-1"},
      {"GET N, TEMPTY", "N", "-1"},
      {"GET N, NOSUCH", "N", "-1"},
      {"GET N, TI3", "N", "-1"},
      {"GET N, TF2", "N", "-1"},
      {"GET N, T9", "N", "-1"},
      {"GET N, TCUT", "N", "-1"},
      {"GET N, TSTUB", "N", "-1"},
      {"GET BUF[99], TL", "'BUF", ""},
      {"PUT TI8, 258\nGET N, TI8", "N", "258"},
  };
  for (const auto& row : rows) {
    const std::string outcome = Run(row.main.c_str(), row.show);
    const size_t last = outcome.rfind("; ");
    EXPECT_EQ(last == outcome.npos ? outcome : outcome.substr(last + 2), row.expected) << row.main;
  }
}

TEST_F(TagsTest, EachPutSetsTheTagsEventAndNoFailedOneDoes) {
  const CNamedEvent event("L_Event", kPrivate);
  const CNamedEvent other("T_Event", kPrivate);
  Run("PUT TL, 1\nPUT TL, 1\nPUT TL, ABC, 3\nPUT TT, ABC, 0");
  EXPECT_EQ(event.SetCount(), 2u);
  EXPECT_EQ(other.SetCount(), 0u);
}

TEST(TagSessionTest, WithoutATableNothingHappens) {
  for (const std::string& name : {std::string(), std::string(300, 'x')}) {
    CTestEngine test(kDeclarations, "PUT TL, 1\nGET N, TL\nMOVE S, 7", name.c_str());
    test.Run();
    EXPECT_FALSE(test.m_engine.HasTable());
    EXPECT_EQ(test.Show("N") + test.Show("S"), "-17");
    EXPECT_TRUE(test.m_owner.m_events.empty());
  }
}

CTagSet Tags(std::initializer_list<const char*> names) {
  CTagSet tags;
  for (const char* name : names) tags.Add(name, kTagInteger, 4);
  return tags;
}

TEST(TagSessionTest, GoesOverToATableLaidWhileItRuns) {
  constexpr char kName[] = "ANEW";
  CTestEngine test(kDeclarations, "INC D\nPUT TL, D\nGET N, TL", kName);
  const auto pass = [&] {
    test.m_owner.m_events.clear();
    test.Run();
    return test.m_owner.m_events.empty() ? std::string() : test.m_owner.m_events.front();
  };
  EXPECT_EQ(pass(), "");  // the session made the table, and nobody has laid it
  ASSERT_TRUE(CTableOwner(kName, kPrivate).Create(Tags({"B", "L"}), false));
  EXPECT_EQ(pass(), "put L 04000000");
  EXPECT_EQ(test.Show("N"), "4");
  ASSERT_TRUE(CTableOwner(kName, kPrivate).Create(Tags({"L"}), true));
  EXPECT_EQ(pass(), "put L 05000000");
  ASSERT_EQ(CTableOwner::Remove(kName, kPrivate), 0u);
  EXPECT_EQ(pass(), "");
  EXPECT_FALSE(CTableOwner(kName, kPrivate).IsOpen());  // it is not made again by the session
  ASSERT_TRUE(CTableOwner(kName, kPrivate).Create(Tags({"I", "L"}), false));
  EXPECT_EQ(pass(), "put L 07000000");
  CTableOwner::Remove(kName, kPrivate);
}

}  // namespace
}  // namespace kvl
