#include "store/kvl_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "store/child.h"

using namespace kvl;

namespace {

class CReaderTest : public testing::Test {
 protected:
  CReaderTest() : m_table("reader"), m_owner(m_table.Name()) {
    CTagSet tags;
    m_strText = UniqueName("STATUS");
    m_strFloat = UniqueName("LEVEL");
    EXPECT_EQ(nullptr, tags.Add(m_strText, kTagText, 6));
    EXPECT_EQ(nullptr, tags.Add(m_strFloat, kTagFloat, 4));
    EXPECT_TRUE(m_owner.Create(tags, false));
    Set(m_strFloat, "1.5");
    EXPECT_EQ(KVL_OK, kvl_table_open(m_table.Name().c_str(), &m_pTable));
    EXPECT_EQ(KVL_OK, kvl_table_tag(m_pTable, m_strFloat.c_str(), &m_pFloat));
    EXPECT_EQ(KVL_OK, kvl_table_tag(m_pTable, m_strText.c_str(), &m_pText));
  }
  ~CReaderTest() override { kvl_table_close(m_pTable); }
  void Set(const std::string& strTag, const std::string& strText) {
    std::string strFault;
    EXPECT_TRUE(m_owner.Set(strTag, strText, strFault)) << strFault;
  }

  CTestTable m_table;
  CTableOwner m_owner;
  std::string m_strText, m_strFloat;
  kvl_table* m_pTable = nullptr;
  kvl_tag* m_pFloat = nullptr;
  kvl_tag* m_pText = nullptr;
};

TEST_F(CReaderTest, ReadsValuesByType) {
  int type = 0;
  size_t size = 0;
  EXPECT_EQ(KVL_OK, kvl_tag_info(m_pText, &type, &size));
  EXPECT_TRUE(type == KVL_TYPE_TEXT && size == 6);
  EXPECT_EQ(m_strText, kvl_tag_name(m_pText));
  double number = 0;
  EXPECT_EQ(KVL_OK, kvl_tag_read_number(m_pFloat, &number));
  EXPECT_EQ(1.5, number);
  EXPECT_EQ(KVL_WRONG_TYPE, kvl_tag_read_number(m_pText, &number));
  EXPECT_EQ(1.5, number);

  Set(m_strText,
      "\xED\x95\x9C"
      "abc");
  char text[16] = "before";
  EXPECT_EQ(KVL_SMALL_BUFFER, kvl_tag_read_text(m_pText, text, 6));
  EXPECT_STREQ("before", text);
  EXPECT_EQ(KVL_OK, kvl_tag_read_text(m_pText, text, 7));
  EXPECT_STREQ(
      "\xED\x95\x9C"
      "abc",
      text);
  EXPECT_EQ(KVL_WRONG_TYPE, kvl_tag_read_text(m_pFloat, text, sizeof text));
  char bytes[6];
  EXPECT_EQ(KVL_SMALL_BUFFER, kvl_tag_read(m_pText, bytes, 5, &size));
  EXPECT_EQ(6u, size);
  EXPECT_EQ(KVL_OK, kvl_tag_read(m_pText, bytes, 6, &size));
  EXPECT_EQ(std::string("\xC7\xD1"
                        "abc\0",
                        6),
            std::string(bytes, size));
}

TEST_F(CReaderTest, RefusesWhatIsNotThere) {
  kvl_table* pTable = nullptr;
  kvl_tag* pTag = nullptr;
  EXPECT_EQ(KVL_NOT_FOUND, kvl_table_open(UniqueName("none").c_str(), &pTable));
  EXPECT_EQ(KVL_BAD_NAME, kvl_table_open("\xFF", &pTable));
  EXPECT_EQ(KVL_BAD_NAME, kvl_table_tag(m_pTable, "", &pTag));
  EXPECT_EQ(KVL_NOT_FOUND, kvl_table_tag(m_pTable, "NONE", &pTag));
  EXPECT_STREQ("there is no such table, tag or port", kvl_error_text(KVL_NOT_FOUND));
  EXPECT_STREQ("unknown error", kvl_error_text(-1));
  kvl_table_close(nullptr);
  kvl_tag_close(nullptr);
}

TEST_F(CReaderTest, NullPointersAreRefused) {
  kvl_tag* pTag = m_pFloat;
  int type = 0;
  size_t size = 0;
  double number = 0;
  char text[8];
  const int codes[] = {kvl_table_open(nullptr, &m_pTable),
                       kvl_table_open("x", nullptr),
                       kvl_table_tag(nullptr, "x", &pTag),
                       kvl_table_tag(m_pTable, nullptr, &pTag),
                       kvl_table_tag(m_pTable, m_strFloat.c_str(), nullptr),
                       kvl_tag_info(nullptr, &type, &size),
                       kvl_tag_info(m_pFloat, nullptr, &size),
                       kvl_tag_info(m_pFloat, &type, nullptr),
                       kvl_tag_read(nullptr, text, sizeof text, &size),
                       kvl_tag_read(m_pFloat, nullptr, sizeof text, &size),
                       kvl_tag_read(m_pFloat, text, sizeof text, nullptr),
                       kvl_tag_read_number(nullptr, &number),
                       kvl_tag_read_number(m_pFloat, nullptr),
                       kvl_tag_read_text(nullptr, text, sizeof text),
                       kvl_tag_read_text(m_pText, nullptr, sizeof text),
                       kvl_tag_wait(nullptr, 0)};
  for (const int code : codes) EXPECT_EQ(KVL_BAD_PARAMETER, code) << &code - codes;
  EXPECT_STREQ("", kvl_tag_name(nullptr));
}

TEST_F(CReaderTest, WaitTellsOfEachNewValue) {
  EXPECT_EQ(KVL_OK, kvl_tag_wait(m_pFloat, -1)) << "of the value that is there already";
  EXPECT_EQ(KVL_TIMEOUT, kvl_tag_wait(m_pFloat, 1));
  Set(m_strFloat, "2");
  kvl_tag* pSecond = nullptr;
  ASSERT_EQ(KVL_OK, kvl_table_tag(m_pTable, m_strFloat.c_str(), &pSecond));
  for (kvl_tag* pTag : {m_pFloat, pSecond}) {
    EXPECT_EQ(KVL_OK, kvl_tag_wait(pTag, -1));
    EXPECT_EQ(KVL_TIMEOUT, kvl_tag_wait(pTag, 0));
  }
  kvl_tag_close(pSecond);
  std::thread reader([&] {
    double number = 0;
    EXPECT_EQ(KVL_OK, kvl_tag_wait(m_pFloat, 10000));
    EXPECT_EQ(KVL_OK, kvl_tag_read_number(m_pFloat, &number));
    EXPECT_EQ(3.0, number);
  });
  Set(m_strFloat, "3");
  reader.join();
}

TEST_F(CReaderTest, FollowsARemovalAndANewTable) {
  ASSERT_EQ(KVL_OK, kvl_tag_wait(m_pFloat, -1));
  std::thread waiter([&] { EXPECT_EQ(KVL_NOT_FOUND, kvl_tag_wait(m_pFloat, 10000)); });
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  ASSERT_EQ(0u, CTableOwner::Remove(m_table.Name()));
  waiter.join();
  double number = 0;
  EXPECT_EQ(KVL_NOT_FOUND, kvl_tag_read_number(m_pFloat, &number));
  CTagSet tags;
  tags.Add(m_strFloat, kTagFloat, 4);
  CTableOwner owner(m_table.Name());
  ASSERT_TRUE(owner.Create(tags, false));
  EXPECT_EQ(KVL_OK, kvl_tag_wait(m_pFloat, 10000));
  EXPECT_EQ(KVL_OK, kvl_tag_read_number(m_pFloat, &number));
  EXPECT_EQ(0.0, number);
}

TEST_F(CReaderTest, ManyThreadsShareOneTable) {
  std::atomic<bool> bEnd = false;
  std::vector<std::thread> readers;
  for (int i = 0; i < 4; ++i) {
    readers.emplace_back([&, i] {
      while (!bEnd) {
        kvl_tag* pTag = nullptr;
        double number = 0;
        EXPECT_EQ(KVL_OK, kvl_table_tag(m_pTable, m_strFloat.c_str(), &pTag));
        EXPECT_EQ(KVL_OK, kvl_tag_wait(pTag, -1));
        EXPECT_EQ(KVL_OK, kvl_tag_read_number(i % 2 ? pTag : m_pFloat, &number));
        EXPECT_NE(KVL_NOT_FOUND, kvl_tag_wait(m_pFloat, 1));
        kvl_tag_close(pTag);
      }
    });
  }
  for (int i = 0; i < 200; ++i) Set(m_strFloat, std::to_string(i));
  bEnd = true;
  for (std::thread& reader : readers) reader.join();
}

class CExampleTest : public CReaderTest {
 protected:
  // What a program prints when the tag is set to 2.5 once it has printed the first value. With the
  // second value it may be interrupted.
  std::string Follow(const std::string& strCommand, bool bInterrupt = false) {
    FILE* const pOutput = popen(("echo $$; exec " + strCommand).c_str(), "r");
    char szLine[256] = "";
    if (pOutput == nullptr || fgets(szLine, sizeof szLine, pOutput) == nullptr) return {};
    const pid_t nProcess = atoi(szLine);
    std::string strOutput;
    for (int nLine = 1; fgets(szLine, sizeof szLine, pOutput) != nullptr; ++nLine) {
      strOutput += szLine;
      if (nLine == 1) Set(m_strFloat, "2.5");
      if (nLine == 2 && bInterrupt) kill(nProcess, SIGINT);
    }
    EXPECT_EQ(0, pclose(pOutput));
    return strOutput;
  }
};

TEST_F(CExampleTest, InCFollowsATag) {
  EXPECT_EQ(
      m_strFloat + " 1.5\n" + m_strFloat + " 2.5\n",
      Follow(TABLE_READER_C " --count 2 --timeout 10000 " + m_table.Name() + " " + m_strFloat));
}

TEST_F(CExampleTest, InPythonFollowsATag) {
#ifdef KVL_SANITIZED
  GTEST_SKIP() << "Python can't load a library that was built with a sanitizer";
#endif
  EXPECT_EQ(
      m_strFloat + " 1.5\n" + m_strFloat + " 2.5\n",
      Follow("python3 " TABLE_READER_PY " --library " KVL_LIBRARY " --count 2 --timeout 10000 " +
             m_table.Name() + " " + m_strFloat));
  // Ctrl-C while it waits for a third.
  EXPECT_EQ(m_strFloat + " 2.5\n" + m_strFloat + " 2.5\n",
            Follow("python3 " TABLE_READER_PY " --library " KVL_LIBRARY " " + m_table.Name() + " " +
                       m_strFloat + " 2>&1",
                   true));
}

}  // namespace
