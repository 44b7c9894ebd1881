// docs/messages.md says what the table of messages says, and its examples draw what they stand for.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <vector>

#include "verifier/test_verifier.h"

namespace kvl {
namespace {

struct CDocumented {
  std::string section;
  std::vector<std::string> cells;  // message, meaning, [example,] cure
};

std::vector<CDocumented> ReadTables() {
  std::ifstream file(KVL_MESSAGES_DOC);
  std::vector<CDocumented> rows;
  std::string section;
  for (std::string line; std::getline(file, line);) {
    if (line.starts_with("## ")) section = line.substr(3);
    if (!line.starts_with("| ") || line.starts_with("| Message |")) continue;
    CDocumented row{section, {}};
    for (size_t at = 2; at < line.size();) {
      const size_t end = line.find(" |", at);
      row.cells.push_back(line.substr(at, end - at));
      at = end + 3;
    }
    rows.push_back(row);
  }
  return rows;
}

// The faults of an example in the frame of its section.
std::string Draw(const CDocumented& row) {
  const std::string example = row.cells[2].substr(1, row.cells[2].size() - 2);
  const bool declares = row.section == "Declarations";
  return Faults(
      fmt::format("VAR N% 0\nDIM BUF$ 10\nEQU E \"abc\"\nOPEN MEDIA TCP\n{}\nBEGIN:\n{}\nEND:\n",
                  declares ? example : "", declares ? "" : example));
}

TEST(MessagesTest, DocumentAgreesWithTheTable) {
  std::map<std::string, std::string> documented;  // message to meaning
  for (const CDocumented& row : ReadTables()) {
    EXPECT_TRUE(documented.emplace(row.cells[0], row.cells[1]).second) << row.cells[0];
    EXPECT_FALSE(row.cells.back().empty()) << row.cells[0];
  }
  EXPECT_EQ(documented.size(), std::size(kMessageTexts));
  for (const CMessageText& text : kMessageTexts) {
    EXPECT_EQ(documented[std::string(text.m_korean)], text.m_english);
  }
}

TEST(MessagesTest, ExamplesDrawTheirMessage) {
  std::map<std::string, std::string_view> names;
  for (const CMessageText& text : kMessageTexts) names[std::string(text.m_korean)] = text.m_name;
  int examples = 0;
  for (const CDocumented& row : ReadTables()) {
    if (row.section != "Declarations" && row.section != "Instructions and labels") continue;
    const std::string faults = Draw(row);
    const std::string name = faults.substr(faults.find(' ') + 1);
    EXPECT_EQ(name.substr(0, name.find('(')), names[row.cells[0]]) << row.cells[2];
    ++examples;
  }
  EXPECT_EQ(examples, static_cast<int>(std::size(kMessageTexts)) - 6);  // all that a line can draw
}

}  // namespace
}  // namespace kvl
