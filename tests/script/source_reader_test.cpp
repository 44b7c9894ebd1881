#include "script/source_reader.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "script/KVL.h"
#include "script/test_engine.h"

namespace kvl {
namespace {

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += "{" + part + "}";
  return joined;
}

TEST(SourceReaderTest, DeclarationTokens) {
  const struct {
    const char* line;
    const char* tokens;
  } rows[] = {
      {"VAR LEN% 0 ; batch length\n", "{VAR}{LEN%}{0}"},
      {"TABLE_NAME \"A  B\"\n", "{TABLE_NAME}{\"A  B\"}"},
      {"\tVAR\t\tN%\x01 5\r\n", "{VAR}{N%}{5}"},
      {"EQU E \"a;b//c\" // note\n", "{EQU}{E}{\"a;b//c\"}"},
      {"EQU E \"\xB0\xA1\tx\"\n", "{EQU}{E}{\"\xB0\xA1\tx\"}"},  // quotes keep every byte
      {"VAR\xB0\xA1N% 1\n", "{VAR}{N%}{1}"},                     // outside them they are blanks
      {"\xB0\xA1VAR N% 1\n", "{VAR}{N%}{1}"},
      {"VAR N% 5", "{VAR}{N%}"},       // nothing ends the last token
      {"EQU E \"open\n", "{EQU}{E}"},  // nor an open quote
      {"A/B /C\n", "{A/B}{/C}"},
      {"; only a comment\n", ""},
      {" \t \n", ""},
  };
  for (const auto& row : rows) {
    std::vector<std::string> tokens;
    SplitDeclaration(CSectionReader::Trim(row.line), tokens);
    EXPECT_EQ(Join(tokens), row.tokens) << row.line;
  }
}

TEST(SourceReaderTest, MainLines) {
  const struct {
    const char* line;
    const char* stored;  // null: yields nothing
  } rows[] = {
      {"CMP LEN, 0 // nothing came?\n", "CMP LEN, 0 "},
      {"  \tIN  BUF,LEN\r\n", "IN  BUF,LEN"},
      {"OUT \"\xB0\xA1;x//\"\n", "OUT \"  ;x//\""},
      {"OUT \"open ; text\n", "OUT \"open ; text"},
      {"\xB0\xA1 DONE:\n", "DONE:"},
      {"DONE:", nullptr},
      {"DONE:;", "DONE:"},
      {"   \t\n", nullptr},
      {"// BEGIN:\n", nullptr},
      {"A / B\n", "A / B"},
  };
  for (const auto& row : rows) {
    std::string stored = "nothing";
    EXPECT_EQ(NormaliseMain(CSectionReader::Trim(row.line), stored), row.stored != nullptr);
    EXPECT_EQ(stored, row.stored == nullptr ? "nothing" : row.stored) << row.line;
  }
}

TEST(SourceReaderTest, Operands) {
  const struct {
    const char* line;
    const char* tokens;
  } rows[] = {
      {"MOVE   COUNT ,  5", "{MOVE}{COUNT}{5}"},
      {"PRINT \"a, b  c\" , T", "{PRINT}{\"a, b  c\"}{T}"},
      {"ADD A,,B", "{ADD}{A}{B}"},
      {"ADD ,A , ", "{ADD}{A}"},
      {"MOVE A,B[I,1]", "{MOVE}{A}{B[I}{1]}"},
      {"OUT \"open, end", "{OUT}{\"open, end}"},
      {"DONE:   ", "{DONE:}"},
      {"SYNC", "{SYNC}"},
  };
  for (const auto& row : rows) {
    std::vector<std::string> tokens;
    SplitMain(row.line, tokens);
    EXPECT_EQ(Join(tokens), row.tokens) << row.line;
  }
}

TEST(SourceReaderTest, LongLinesComeInPieces) {
  const std::string text = std::string(254, 'a') + "\n" + std::string(256, 'b') + "\nlast";
  std::vector<size_t> sizes;
  for (std::string_view rest = text; !rest.empty();) sizes.push_back(TakeChunk(rest).size());
  EXPECT_EQ(sizes, (std::vector<size_t>{255, 255, 2, 4}));
}

TEST(SourceReaderTest, TheMainSectionBeginsAnywhereInALineAndNeverEnds) {
  CTestOwner owner;
  CKVL engine(&owner, "");
  EXPECT_EQ(engine.LoadText("VAR A% 1\n; a word SEND: in a comment\nVAR B% 2\nDONE:\n"), 2);
  EXPECT_NE(engine.FindVariableTable("A"), nullptr);
  EXPECT_EQ(engine.FindVariableTable("B"), nullptr);
  EXPECT_EQ(Join(engine.MainLines()), "{VAR B% 2}{DONE:}");
}

TEST(SourceReaderTest, WhatIsNoReadableFileIsRefused) {
  std::string text;
  EXPECT_FALSE(ReadScript("no such file", text));
  EXPECT_FALSE(ReadScript(".", text));
  const std::string path = testing::TempDir() + "kvl_source_reader_test";
  std::ofstream(path) << "BEGIN:\nEND:\n";
  EXPECT_TRUE(ReadScript(path.c_str(), text));
  EXPECT_EQ(text, "BEGIN:\nEND:\n");
  CTestOwner owner;
  CKVL engine(&owner, "");
  EXPECT_EQ(engine.LoadScript(path.c_str()), 2);
  EXPECT_EQ(CKVL(&owner, "").LoadScript("no such file"), 0);
  std::remove(path.c_str());
}

}  // namespace
}  // namespace kvl
