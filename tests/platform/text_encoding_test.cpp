#include "platform/text_encoding.h"

#include <gtest/gtest.h>

namespace kvl {
namespace {

TEST(TextEncodingTest, KoreanGoesBothWays) {
  std::string bytes;
  ASSERT_TRUE(Cp949FromUtf8("변수 A", bytes));
  EXPECT_EQ(bytes, "\xBA\xAF\xBC\xF6 A");
  EXPECT_EQ(Utf8FromCp949(bytes), "변수 A");
  std::u16string wide;
  ASSERT_TRUE(Utf16FromCp949(bytes, wide));
  EXPECT_EQ(wide, u"변수 A");
  EXPECT_EQ(Utf8FromUtf16(wide), "변수 A");
}

TEST(TextEncodingTest, UndecodableBytesAreReplacedOneByOne) {
  EXPECT_EQ(Utf8FromCp949("a\xFF\xFF"), "a\uFFFD\uFFFD");
  EXPECT_EQ(Utf8FromCp949("a\xBA"), "a\uFFFD");
  EXPECT_EQ(Utf8FromUtf16(u"a\xD83D"), "a\uFFFD");
  EXPECT_EQ(Utf8FromUtf16(u"\U0001F600"), "😀");
}

TEST(TextEncodingTest, WhatCannotBeConvertedChangesNothing) {
  std::string bytes = "kept";
  EXPECT_FALSE(Cp949FromUtf8("😀", bytes));
  EXPECT_FALSE(Cp949FromUtf8("\xC3", bytes));
  EXPECT_EQ(bytes, "kept");
  std::u16string wide = u"kept";
  EXPECT_FALSE(Utf16FromCp949("\xBA", wide));
  EXPECT_EQ(wide, u"kept");
}

}  // namespace
}  // namespace kvl
