#include "store/SharedMemory.h"

#include <gtest/gtest.h>

#include <random>

#include "store/child.h"
#include "store/raw_table.h"
#include "store/tag_value.h"

using namespace kvl;
using namespace std::chrono_literals;

namespace {

constexpr uint32_t kSize = 4096;

// A table of one value of 8 bytes, "VALUE", and a store that has it open.
class CSharedMemoryTest : public testing::Test {
 protected:
  CSharedMemoryTest()
      : m_table("t", kSize),
        m_store((Lay({RecordBytes(u"VALUE", "abcdefgh")}), "t"), 0, nullptr, kPrivate) {}
  void Lay(const std::vector<std::string>& records, bool bCounted = true) {
    m_table.Lay(TableBytes(records, kSize), bCounted);
  }
  // What ReadValue gives, or the error in text.
  std::string Read(std::string_view strName) {
    char area[256];
    uint32_t dwLength = sizeof area;
    if (m_store.ReadValue(strName, area, &dwLength)) return {area, dwLength};
    EXPECT_EQ(ThreadError(), m_store.LastError());
    return "error " + std::to_string(m_store.LastError());
  }
  uint32_t Write(std::string_view strName, const std::string& bytes, uint32_t dwFromEnd) {
    const auto dwBytes = static_cast<uint32_t>(bytes.size());
    return m_store.WriteValue(strName, bytes.data(), dwFromEnd, dwBytes) ? 0 : m_store.LastError();
  }

  CRawTable m_table;
  CSharedMemory m_store;
};

TEST(CSharedMemoryOpening, FirstOpenerLaysTheHeadAndLaterOnesKeepIt) {
  int nCalls = 0;
  const auto callback = [&](CSharedMemory& store) {
    ++nCalls;
    uint32_t dwLength = 0;  // would fail if the semaphore were still held
    EXPECT_FALSE(store.ReadValue("X", nullptr, &dwLength));
    EXPECT_EQ(kErrorNotFound, store.LastError());
  };
  const CSharedMemory first("opening", kSize, callback, kPrivate);
  EXPECT_TRUE(first.IsOpen() && first.IsFirstOpener());
  const CRawTable raw("opening", 1);
  std::string expected("\0\0\0\0\0\x10\0\0", 8);
  expected.resize(kSize);
  EXPECT_EQ(kSize, raw.Size());
  EXPECT_EQ(expected, raw.Bytes(0, kSize));

  const CSharedMemory second("opening", 2 * kSize, callback, kPrivate);
  EXPECT_TRUE(second.IsOpen() && !second.IsFirstOpener());
  EXPECT_EQ(kSize, second.Size());
  EXPECT_EQ(2, nCalls);
}

TEST(CSharedMemoryOpening, FailuresLeaveTheStoreClosed) {
  const struct {
    std::string m_strName;
    uint32_t m_dwSize;
    EOpenMode m_mode;
    uint32_t m_dwError;
  } cases[] = {{"", kSize, EOpenMode::kOpenOrCreate, kErrorInvalidName},
               {std::string(300, 'x'), kSize, EOpenMode::kOpenOrCreate, kErrorNameTooLong},
               {std::string(239, 'x'), kSize, EOpenMode::kOpenOrCreate, kErrorNameTooLong},
               {std::string(80, '/'), kSize, EOpenMode::kOpenOrCreate, kErrorNameTooLong},
               {"nothing there", kSize, EOpenMode::kOpenExisting, kErrorNotFound},
               {"too small", 7, EOpenMode::kOpenOrCreate, kErrorBadParameter}};
  for (const auto& row : cases) {
    CSharedMemory store(row.m_strName, row.m_dwSize, nullptr, kPrivate, row.m_mode);
    EXPECT_FALSE(store.IsOpen());
    EXPECT_EQ(row.m_dwError, store.LastError());
    EXPECT_EQ(row.m_dwError, ThreadError());
    uint32_t dwLength = 0;
    EXPECT_FALSE(store.ReadValue("X", nullptr, &dwLength));
    EXPECT_EQ(kErrorNotOpen, store.LastError());
    EXPECT_FALSE(store.WriteValue("X", "x", 0, 0));
    EXPECT_EQ(kErrorNotOpen, store.LastError());
  }
}

TEST_F(CSharedMemoryTest, ReadsWholeAreasAndTellsTheirLength) {
  char area[8];
  uint32_t dwLength = 99;
  EXPECT_TRUE(m_store.ReadValue("VALUE", nullptr, &dwLength));
  EXPECT_EQ(8u, dwLength);
  EXPECT_TRUE(m_store.ReadValue("VALUE", area, &dwLength));
  EXPECT_EQ("abcdefgh", std::string(area, 8));
  dwLength = 7;
  area[0] = 'x';
  EXPECT_FALSE(m_store.ReadValue("VALUE", area, &dwLength));
  EXPECT_EQ(kErrorSmallBuffer, m_store.LastError());
  EXPECT_EQ(8u, dwLength);
  EXPECT_EQ('x', area[0]);
}

TEST_F(CSharedMemoryTest, FindsTheFirstRecordOfExactlyThatName) {
  const std::u16string strLongest(39, u'n');
  Lay({RecordBytes(u"EMPTY", ""), RecordBytes(u"VALUE", "first"), RecordBytes(u"VALUE", "later"),
       RecordBytes(std::u16string(40, u'e'), "no end"), RecordBytes(strLongest, "longest"),
       RecordBytes(u"\uD55C\uAE00", "korean")});
  EXPECT_EQ("", Read("EMPTY"));
  EXPECT_EQ("first", Read("VALUE"));
  EXPECT_EQ("first", Read(std::string_view("VALUE\0x", 7)));
  EXPECT_EQ("longest", Read(std::string(39, 'n')));
  EXPECT_EQ("korean", Read("\xC7\xD1\xB1\xDB"));
  for (const char* szName :
       {"value", "VALU", "VALUEX", "", "eeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeeee"}) {
    EXPECT_EQ("error 2", Read(szName)) << szName;
  }
  EXPECT_EQ("error 1113", Read("\xFF"));
  EXPECT_EQ(0u, Write("VALUE", "FIRST", 5));
  EXPECT_EQ("FIRST", Read("VALUE"));
}

TEST_F(CSharedMemoryTest, WritesOnlyWithinTheArea) {
  const struct {
    const char* m_szName;
    std::string m_strBytes;
    uint32_t m_dwFromEnd;
    uint32_t m_dwError;
    std::string m_strArea;
  } cases[] = {
      {"VALUE", "ABCDEFGH", 8, 0, "ABCDEFGH"},
      {"VALUE", "xy", 3, 0, "abcdexyh"},
      {"VALUE", "123456789", 8, kErrorNoMemory, "abcdefgh"},
      {"VALUE", "123456789", 9, kErrorNoMemory, "abcdefgh"},
      {"VALUE", "x", 9, kErrorBadParameter, "abcdefgh"},
      {"VALUE", "x", UINT32_MAX, kErrorBadParameter, "abcdefgh"},
      {"VALUE", "xyz", 2, kErrorBadParameter, "abcdefgh"},
      {"VALUE", "x", 0, kErrorBadParameter, "abcdefgh"},
      {"VALUE", "", 8, kErrorBadLength, "abcdefgh"},
      {"NONE", "", 8, kErrorBadLength, "abcdefgh"},
      {"NONE", "x", 8, kErrorNotFound, "abcdefgh"},
  };
  CNamedEvent event("VALUE_Event", kPrivate);
  for (const auto& row : cases) {
    const std::string before = TableBytes({RecordBytes(u"VALUE", "abcdefgh")}, kSize);
    m_table.Lay(before);
    event.Reset();
    EXPECT_EQ(row.m_dwError, Write(row.m_szName, row.m_strBytes, row.m_dwFromEnd));
    EXPECT_EQ(row.m_strArea, Read("VALUE")) << row.m_strBytes;
    EXPECT_EQ(before.substr(0, 92), m_table.Bytes(0, 92));
    EXPECT_EQ(row.m_dwError == 0, event.IsSet()) << row.m_strBytes;
  }
}

TEST_F(CSharedMemoryTest, SetsAnEventThatAnotherProcessWaitsFor) {
  const CNamedEvent keepsTheCount("VALUE_Event", kPrivate);
  CChild consumer([] {
    const CNamedEvent event("VALUE_Event", kPrivate);
    return event.Wait(10s) == EWaited::kSet ? 0 : 1;
  });
  EXPECT_EQ(0u, Write("VALUE", "x", 8));
  EXPECT_EQ(0, consumer.Join());
  EXPECT_TRUE(keepsTheCount.IsSet()) << "nobody has reset it";
}

TEST_F(CSharedMemoryTest, AccessReachesHeadAndPayload) {
  const auto pTag = m_store.BindTag("TAG");
  const struct {
    std::string m_strArea;
    bool m_bTag;
    std::string m_strAfter;  // a write of "XY"
  } cases[] = {
      {TagArea(4, "text"), true, TagArea(4, "XYxt")},
      {TagArea(4, "text") + "tail", true, TagArea(4, "text") + "XYil"},  // PUT counts from the end
      {TagArea(4, "t"), true, TagArea(4, "t")},
      {TagArea(9, ""), true, TagArea(9, "")},
      {TagArea(4, "text").substr(0, 39), false, TagArea(4, "text").substr(0, 39)},
      {TagArea(4, "text").substr(0, 35), false, TagArea(4, "text").substr(0, 35)},
      {"", false, ""},
  };
  for (const auto& row : cases) {
    Lay({RecordBytes(u"OTHER", "o"), RecordBytes(u"TAG", row.m_strArea)});
    {
      CValueAccess value(m_store, *pTag);
      ASSERT_TRUE(value);
      EXPECT_EQ(row.m_bTag, value.HasTag()) << row.m_strArea;
      EXPECT_EQ(row.m_bTag ? row.m_strArea.size() > 40 ? 4u : row.m_strArea.size() - 36 : 0u,
                value.Payload().size());
      EXPECT_EQ(row.m_strAfter != row.m_strArea, value.WritePayload("XY", 2));
    }
    EXPECT_EQ(row.m_strAfter, Read("TAG"));
  }
}

// A tag that was found before is found again by what is remembered of it; that must never differ
// from a walk of the table as it is now.
TEST_F(CSharedMemoryTest, FollowsAnOwnerWhoChangesTheTable) {
  const std::string strA = RecordBytes(u"A", "a1"), strLongA = RecordBytes(u"A", "long a"),
                    strB = RecordBytes(u"B", "b1"), strC = RecordBytes(u"C", "c1"),
                    strEarlyB = RecordBytes(u"B", "b0");
  const struct {
    std::vector<std::string> m_records;
    bool m_bCounted;
    std::string m_strB;
  } steps[] = {
      {{strA, strB}, true, "b1"},
      {{strEarlyB, strB}, true, "b0"},
      {{strA, strB}, true, "b1"},
      {{strLongA, strB}, true, "b1"},
      {{strLongA}, true, "error 2"},
      {{strLongA, strB}, true, "b1"},
      // An owner who forgets to count is noticed where the record isn't what it was.
      {{strA, strB}, false, "b1"},
      {{strA, strC}, false, "error 2"},
      {{strB, strC}, true, "b1"},
      {{strB}, false, "b1"},
      {{}, false, "error 2"},
  };
  for (const auto& step : steps) {
    Lay(step.m_records, step.m_bCounted);
    EXPECT_EQ(step.m_strB, Read("B"));
    EXPECT_EQ(step.m_strB, Read("B"));
  }
}

// A script may name a tag that its table lacks, at every pass.
TEST_F(CSharedMemoryTest, DoesNotWalkForTheSameMissAgain) {
  Lay({RecordBytes(u"VALUE", "abcdefgh")});
  EXPECT_EQ("error 2", Read("NONE"));
  Lay({RecordBytes(u"NONE", "abcdefgh")}, false);
  EXPECT_EQ("error 2", Read("NONE")) << "only a walk could have found it";
  Lay({RecordBytes(u"NONE", "abcdefgh")});
  EXPECT_EQ("abcdefgh", Read("NONE"));
}

TEST_F(CSharedMemoryTest, RefusesRecordsBeyondTheSection) {
  std::string strFull = RecordBytes(u"LAST", std::string(kSize - 8 - 92 - 84, 'x'));
  Lay({RecordBytes(u"VALUE", "abcdefgh"), strFull});
  EXPECT_EQ("error 122", Read("LAST")) << "a record may end with the section";
  for (const uint32_t dwLength : {kSize - 8 - 92 - 84 + 1, UINT32_MAX}) {
    std::string strLength;
    AppendWord(strLength, dwLength);
    strFull.replace(80, 4, strLength);
    Lay({RecordBytes(u"VALUE", "abcdefgh"), strFull});
    EXPECT_EQ("abcdefgh", Read("VALUE")) << "what stands before the damage is sound";
    EXPECT_EQ("error 1392", Read("LAST"));
    EXPECT_EQ(kErrorDamaged, Write("LAST", "x", 1));
    EXPECT_EQ("error 1392", Read("BEHIND"));
  }
}

TEST_F(CSharedMemoryTest, GoesOverToATableThatReplacedItsOwn) {
  EXPECT_EQ("abcdefgh", Read("VALUE"));
  ASSERT_EQ(0u, CTableOwner::Remove("t", kPrivate));
  EXPECT_EQ("error 2", Read("VALUE"));
  EXPECT_EQ("error 2", Read("VALUE"));
  CRawTable anew("t", kSize);
  anew.Lay(TableBytes({RecordBytes(u"VALUE", "new")}, kSize));
  EXPECT_EQ("new", Read("VALUE"));
}

// Whatever a section holds, every operation ends and leaves the process alive. The section ends
// with a page, so that most steps beyond it would not.
TEST_F(CSharedMemoryTest, EndsOnAnyContents) {
  std::mt19937 random(20240229);
  const uint32_t words[] = {0,
                            1,
                            35,
                            36,
                            84,
                            kSize - 8,
                            kSize - 92,
                            kSize,
                            0x7FFFFFFF,
                            0x80000000,
                            UINT32_MAX - 83,
                            UINT32_MAX};
  const auto Pick = [&] { return words[random() % std::size(words)]; };
  for (int nRound = 0; nRound < 3000; ++nRound) {
    std::string bytes =
        TableBytes({RecordBytes(u"A", TagArea(4, "text")), RecordBytes(u"VALUE", "abcdefgh"),
                    RecordBytes(u"B", TagArea(3, "1234"))},
                   kSize);
    const size_t fields[] = {0, 4, 88, 125, 216, 308, 345, 8, 10, 132, 224, random() % 340};
    for (uint32_t i = random() % 4 + 1; i > 0; --i) {
      StoreAt(reinterpret_cast<uint8_t*>(bytes.data()) + fields[random() % std::size(fields)],
              Pick() + random() % 3 - 1);
    }
    m_table.Lay(bytes, random() % 2 == 0);
    CSharedMemory opener("t", kSize, nullptr, kPrivate);
    for (CSharedMemory* pStore : {&m_store, &opener}) {
      for (const char* szName : {"A", "VALUE", "B", "C"}) {
        const auto pTag = pStore->BindTag(szName);
        if (!pTag) continue;
        CValueAccess value(*pStore, *pTag);
        TagValueText(value.Type(), value.Payload());
        value.WritePayload("wxyz", 1 + random() % 4);
        value.Write("wxyz", Pick(), Pick() % 5);
      }
    }
    std::vector<CTagImage> tags;
    CTableOwner("t", kPrivate).List(tags);
  }
}

}  // namespace
