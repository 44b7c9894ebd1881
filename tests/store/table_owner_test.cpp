#include "store/TableOwner.h"

#include <gtest/gtest.h>

#include "store/child.h"
#include "store/raw_table.h"
#include "store/tag_set.h"
#include "store/tag_value.h"

using namespace kvl;

namespace {

CTagSet Tags(std::string_view strFile) {
  CTagSet tags;
  for (const CTagFileFault& fault : ParseTagFile(strFile, tags)) {
    ADD_FAILURE() << fault.m_nLine << ": " << fault.m_strText;
  }
  return tags;
}

TEST(TagFile, ReadsTagsInTheirOrder) {
  const CTagSet tags = Tags(
      "\xEF\xBB\xBFLEVEL float # in metres\r\n\n# nothing\n  COUNT\tint32\nS int16\nB byte\n"
      "\xED\x95\x9C\xEA\xB8\x80 text 65535");
  ASSERT_EQ(5u, tags.Tags().size());
  const struct {
    const char* m_szName;
    uint8_t m_type;
    uint16_t m_nSize;
  } expected[] = {
      {"LEVEL", 3, 4}, {"COUNT", 2, 4}, {"S", 2, 2}, {"B", 1, 1}, {"\xC7\xD1\xB1\xDB", 4, 65535}};
  for (size_t i = 0; i < 5; ++i) {
    EXPECT_EQ(expected[i].m_szName, tags.Tags()[i].m_strName);
    EXPECT_EQ(expected[i].m_type, tags.Tags()[i].m_type);
    EXPECT_EQ(expected[i].m_nSize, tags.Tags()[i].m_nSize);
  }
  EXPECT_EQ(u"\uD55C\uAE00", tags.Tags()[4].m_strWide);
}

TEST(TagFile, ReportsEachFaultWithItsLine) {
  const std::string strLong(40, 'n');
  const std::pair<std::string, std::string> cases[] = {
      {"LEVEL", "a tag needs a name and a type"},
      {"LEVEL double", "unknown type 'double'; known are byte, int16, int32, float, text"},
      {"LEVEL Float", "unknown type 'Float'; known are byte, int16, int32, float, text"},
      {"LEVEL float 4", "'4' is too much; only a text has a size"},
      {"LEVEL text", "a text needs its size in bytes"},
      {"LEVEL text 8 x", "'x' is too much"},
      {"LEVEL text 0", "the size of a text is 1 to 65535"},
      {"LEVEL text 65536", "the size of a text is 1 to 65535"},
      {"LEVEL text 99999999999", "the size of a text is 1 to 65535"},
      {"LEVEL text -1", "the size of a text is 1 to 65535"},
      {"LEVEL text 8b", "the size of a text is 1 to 65535"},
      {strLong + " byte", "the name is longer than 39 characters"},
      {"\xF0\x9F\x98\x80 byte",
       "the name can't be written in code page 949, so that no script could use it"},
      {"GOOD byte", "there is a tag of this name already"},
  };
  std::string strFile = "GOOD float\n";
  for (const auto& [strLine, strFault] : cases) strFile += strLine + "\n";
  CTagSet tags;
  const std::vector<CTagFileFault> faults = ParseTagFile(strFile, tags);
  ASSERT_EQ(std::size(cases), faults.size());
  for (size_t i = 0; i < faults.size(); ++i) {
    EXPECT_EQ(static_cast<int>(i) + 2, faults[i].m_nLine);
    EXPECT_EQ(cases[i].second, faults[i].m_strText);
  }
}

TEST(TagFile, ATableHoldsTenMebibytes) {
  CTagSet tags;
  int nTag = 0;
  const auto Add = [&](uint32_t nSize) {
    return tags.Add("T" + std::to_string(nTag++), kTagText, nSize);
  };
  while (kTableSize - tags.Bytes() >= 2 * (65535 + 120)) ASSERT_EQ(nullptr, Add(65535));
  ASSERT_EQ(nullptr, Add(kTableSize - tags.Bytes() - 65535 - 120 - 120));
  ASSERT_EQ(nullptr, Add(65535));
  EXPECT_STREQ("the table is full: its tags need over 10 MiB", Add(1));
  EXPECT_EQ(kTableSize, tags.Bytes()) << "the last byte is used";
  const CTestTable table("full");
  EXPECT_TRUE(CTableOwner(table.Name()).Create(tags, false));
}

TEST(TagValue, TextsAndPayloadsTurnIntoEachOther) {
  using namespace std::string_literals;
  const struct {
    uint8_t m_type;
    std::string m_strText, m_strPayload;
  } cases[] = {
      {1, "255", "\xFF"},
      {2, "-2", "\xFE\xFF"},
      {2, "-32768", "\0\x80"s},
      {2, "-2147483648", "\0\0\0\x80"s},
      {3, "1.5", "\0\0\xC0\x3F"s},
      {3, "1e-40", "\xC2\x16\x01\0"s},
      {3, "0.1", "\xCD\xCC\xCC\x3D"},
      {4, "OK", "OK\0\0\0"s},
      {4, "\xED\x95\x9C", "\xC7\xD1\0"s},
      {4, "", "\0"s},
  };
  for (const auto& row : cases) {
    std::vector<uint8_t> payload;
    std::string strFault;
    EXPECT_TRUE(PayloadFromText(row.m_type, static_cast<uint16_t>(row.m_strPayload.size()),
                                row.m_strText, payload, strFault))
        << strFault;
    EXPECT_EQ(row.m_strPayload, std::string(payload.begin(), payload.end())) << row.m_strText;
    EXPECT_EQ(row.m_strText, TagValueText(row.m_type, payload));
  }
  EXPECT_EQ("0102", TagValueText(9, std::vector<uint8_t>{1, 2}));
  EXPECT_EQ("010203", TagValueText(kTagInteger, std::vector<uint8_t>{1, 2, 3}));
}

TEST(TagValue, RefusesWhatATagCannotHold) {
  const struct {
    uint8_t m_type;
    uint16_t m_nSize;
    const char* m_szText;
  } cases[] = {{1, 1, "256"},   {1, 1, "-1"},
               {2, 2, "32768"}, {2, 4, "2147483648"},
               {2, 4, "1.5"},   {2, 4, ""},
               {2, 4, "1 "},    {2, 4, "+-1"},
               {3, 4, "1e39"},  {3, 4, "nan"},
               {3, 4, "inf"},   {3, 4, "x"},
               {4, 2, "abc"},   {4, 9, "\xF0\x9F\x98\x80"},
               {4, 9, "\xFF"},  {7, 4, "1"},
               {2, 3, "1"}};
  for (const auto& row : cases) {
    std::vector<uint8_t> payload;
    std::string strFault;
    EXPECT_FALSE(PayloadFromText(row.m_type, row.m_nSize, row.m_szText, payload, strFault))
        << row.m_szText;
    EXPECT_NE("", strFault);
  }
}

TEST(CTableOwner, LaysTheTableByteForByte) {
  CTableOwner owner("laid", kPrivate);
  ASSERT_TRUE(owner.Create(Tags("LEVEL float\nSTATUS text 6\n"), false));
  const auto Area = [](uint8_t type, size_t nSize) {
    return std::string(32, '\0') + TagArea(type, std::string(nSize, '\0')).substr(32, 3) +
           std::string(1 + nSize, '\0');
  };
  std::string expected = TableBytes(
      {RecordBytes(u"LEVEL", Area(3, 4)), RecordBytes(u"STATUS", Area(4, 6))}, kTableSize);
  expected.resize(1000);
  const CRawTable raw("laid", 0);
  EXPECT_EQ(kTableSize, raw.Size());
  EXPECT_EQ(expected, raw.Bytes(0, 1000));
}

TEST(CTableOwner, ReplacesATableOnlyWhenTold) {
  CTableOwner owner("replaced", kPrivate);
  EXPECT_EQ(kErrorNotFound, owner.LastError());
  ASSERT_TRUE(owner.Create(Tags("A byte\nB byte"), false));
  std::string strFault;
  ASSERT_TRUE(owner.Set("B", "7", strFault));
  EXPECT_FALSE(owner.Create(Tags("C byte"), false));
  EXPECT_EQ(kErrorAlreadyExists, owner.LastError());
  CTagImage tag;
  ASSERT_TRUE(owner.Get("B", tag));
  EXPECT_EQ(std::vector<uint8_t>{7}, tag.m_payload);
  ASSERT_TRUE(owner.Create(Tags("C byte\nB byte"), true));
  ASSERT_TRUE(owner.Get("B", tag));
  EXPECT_EQ(std::vector<uint8_t>{0}, tag.m_payload);
  EXPECT_FALSE(owner.Get("A", tag));
}

TEST(CTableOwner, SetsAndListsTags) {
  CTableOwner owner("listed", kPrivate);
  ASSERT_TRUE(owner.Create(Tags("LEVEL float\nSTATUS text 6"), false));
  const CNamedEvent event("LEVEL_Event", kPrivate);
  std::string strFault;
  EXPECT_TRUE(owner.Set("LEVEL", "1.5", strFault)) << strFault;
  EXPECT_TRUE(event.IsSet());
  EXPECT_TRUE(owner.Set("STATUS", "longer", strFault));
  EXPECT_TRUE(owner.Set("STATUS", "OK", strFault)) << "leaves nothing of the longer text";
  EXPECT_FALSE(owner.Set("STATUS", "too long", strFault));
  EXPECT_EQ("the text needs 8 bytes and the tag has 6", strFault);
  EXPECT_FALSE(owner.Set("NONE", "1", strFault));
  EXPECT_EQ("there is no such table, tag or port", strFault);
  std::vector<CTagImage> tags;
  ASSERT_TRUE(owner.List(tags));
  ASSERT_EQ(2u, tags.size());
  EXPECT_EQ("LEVEL 1.5", tags[0].m_strName + " " + TagValueText(tags[0].m_type, tags[0].m_payload));
  EXPECT_EQ("STATUS OK", tags[1].m_strName + " " + TagValueText(tags[1].m_type, tags[1].m_payload));
}

TEST(CTableOwner, ListsWhatIsSoundOfADamagedTable) {
  CRawTable raw("damaged", 1024);
  std::string bytes = TableBytes(
      {RecordBytes(u"A", TagArea(1, "a")), RecordBytes(u"raw", "no tag"),
       RecordBytes(std::u16string(40, u'x'), TagArea(1, "b")), RecordBytes(u"C", TagArea(1, "c")),
       RecordBytes(u"A", TagArea(4, "hidden")), RecordBytes(u"raw", TagArea(1, "hidden"))},
      1024);
  bytes[0] = 99;
  raw.Lay(bytes);
  CTableOwner owner("damaged", kPrivate);
  std::vector<CTagImage> tags;
  EXPECT_FALSE(owner.List(tags)) << "zeros behind C make records until the section ends";
  EXPECT_EQ(kErrorDamaged, owner.LastError());
  ASSERT_EQ(2u, tags.size());
  EXPECT_EQ("C", tags[1].m_strName);
}

TEST(CTableOwner, LaysATableAnewWhateverItsHeadSays) {
  const CTagSet tags = Tags("NEW byte");
  for (const uint32_t dwCount : {0U, 1U, UINT32_MAX}) {
    for (const uint32_t dwSize : {0U, 4U, 7U, 8U, 100U, 1024U, 1025U, UINT32_MAX}) {
      SCOPED_TRACE(std::to_string(dwCount) + " records in " + std::to_string(dwSize));
      CRawTable raw("head", 1024);
      std::string head;
      AppendWord(head, dwCount);
      AppendWord(head, dwSize);
      raw.Lay(head);
      CSharedMemory session("head", kTableSize, nullptr, kPrivate);
      CTableOwner owner("head", kPrivate);
      std::vector<CTagImage> listed;
      EXPECT_TRUE(owner.List(listed) || dwCount + dwSize > 0) << "blank";
      ASSERT_TRUE(owner.Create(tags, true)) << owner.LastError();
      CTagImage tag;
      EXPECT_TRUE(owner.Get("NEW", tag));
      EXPECT_TRUE(CValueAccess(session, *session.BindTag("NEW")).HasTag()) << "opened before";
      EXPECT_EQ(std::string("\1\0\0\0\0\4\0\0", 8), raw.Bytes(0, 8));
    }
  }
}

TEST(CTableOwner, LaysATableThatWasRemovedBehindItsBack) {
  CTableOwner owner("behind", kPrivate);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(owner.Create(Tags("A byte"), false)) << owner.LastError();
    ASSERT_EQ(0U, CTableOwner::Remove("behind", kPrivate));
  }
  EXPECT_EQ(kErrorNotFound, CTableOwner::Remove("behind", kPrivate)) << "nothing is left";
}

TEST(CTableOwner, RemovesEveryObjectOfATable) {
  EXPECT_EQ(kErrorNotFound, CTableOwner::Remove("dropped", kPrivate));
  CTableOwner owner("dropped", kPrivate);
  ASSERT_TRUE(owner.Create(Tags("DROPPED byte"), false));
  const CNamedEvent event("DROPPED_Event", kPrivate);
  EXPECT_EQ(0u, CTableOwner::Remove("dropped", kPrivate));
  EXPECT_TRUE(event.IsRemoved());
  EXPECT_FALSE(CNamedSection("dropped", 0, EOpenMode::kOpenExisting, kPrivate).IsOpen());
  for (const char* szSuffix : {kLockSuffix, kTableLockSuffix}) {
    EXPECT_FALSE(
        CNamedSemaphore(std::string("dropped") + szSuffix, EOpenMode::kOpenExisting, kPrivate)
            .IsOpen());
  }
  CTagImage tag;
  EXPECT_FALSE(owner.Get("DROPPED", tag));
  EXPECT_EQ(kErrorNotFound, owner.LastError());
}

}  // namespace
