#include "script/layout.h"

#include <gtest/gtest.h>

#include <string>

namespace kvl {
namespace {

constexpr char kTidy[] = R"(; level gauge
OPEN MEDIA     RS232C
OPEN BAUD_RATE 9600
TABLE_NAME "GAUGES"

VAR    LEN%  0    ; batch length
ASSIGN TITLE "a ;  b"
DIM    BUF$  256  // what came

BEGIN:
    ; one batch
    IN BUF, LEN  ; all of it
    CMP LEN, 0
    JPE DONE     ; nothing
    MOVE LEN, BUF[LEN-1]
    PRINT "x , y", H
; nothing more
DONE:
    SYNC 12
END:
; the end
)";

constexpr char kUntidy[] = R"(

   ; level gauge
OPEN MEDIA RS232C
	OPEN   BAUD_RATE	9600
TABLE_NAME "GAUGES"

 	

VAR LEN% 0 ; batch length
ASSIGN TITLE "a ;  b"
DIM BUF$ 256// what came

  BEGIN:
; one batch
IN  BUF ,LEN; all of it
    CMP LEN,,0,
	JPE	DONE ; nothing
MOVE LEN,BUF[ LEN - 1 ]
PRINT "x , y",H
   ; nothing more
    DONE:
SYNC 12
   END:
  ; the end

)";

std::string WithCarriageReturns(std::string text) {
  for (size_t i = 0; (i = text.find('\n', i)) != text.npos; i += 2) text.insert(i, "\r");
  return text;
}

TEST(LayoutTest, OneCanonicalLayout) {
  EXPECT_EQ(LayOutScript(kUntidy).m_text, kTidy);
  EXPECT_EQ(LayOutScript(kTidy).m_text, kTidy);
  EXPECT_TRUE(LayOutScript(kUntidy).m_kept.empty());
  EXPECT_EQ(LayOutScript(WithCarriageReturns(kUntidy)).m_text, WithCarriageReturns(kTidy));
  EXPECT_EQ(LayOutScript("").m_text, "");
  EXPECT_EQ(LayOutScript(" \n\t\r\n").m_text, "");
}

// A line whose layout could change what it means, or would lose what its author wrote.
TEST(LayoutTest, KeepsWhatItMustNotTouch) {
  const std::string longest(254 - 9, 'x');
  const struct {
    std::string text;
    std::string kept;  // the line that must come through byte for byte
  } rows[] = {
      {"BEGIN:\nMOVE  A,1", "MOVE  A,1"},    // not stored without a line end
      {"DIM A$ 1\nVAR  A% 5", "VAR  A% 5"},  // its last word does not count
      {"EQU  A  \"open\n", "EQU  A  \"open\n"},
      {"BEGIN:\nPRINT  \"open  \n", "PRINT  \"open  \n"},
      {"VAR\xB0\xA1N% 1\n", "VAR\xB0\xA1N% 1\n"},
      {"BEGIN:\nMOVE\x01\x41,1\n", "MOVE\x01\x41,1\n"},
      {"BEGIN:\nMOVE A,1\rMOVE B,2\n", "MOVE A,1\rMOVE B,2\n"},  // the reader stops at the CR
      {"BEGIN:\n\"a\" b  c\n", "\"a\" b  c\n"},
      {"BEGIN:\nOUT  BEG IN:\n", "OUT  BEG IN:\n"},  // joined up it would look like a BEGIN:
      {"BEGIN:\nOUT A ;" + std::string(300, 'x') + "\n", "OUT A ;" + std::string(300, 'x')},
      {"BEGIN:\nOUT  \"" + longest + "\" \n", "OUT  \"" + longest},  // indented, it would be cut
  };
  for (const auto& row : rows) {
    const CLayout layout = LayOutScript(row.text);
    EXPECT_NE(layout.m_text.find(row.kept), std::string::npos) << row.text;
    EXPECT_EQ(layout.m_kept.size(), 1U) << row.text;
    EXPECT_EQ(LayOutScript(layout.m_text).m_text, layout.m_text) << row.text;
  }
}

TEST(LayoutTest, EndsTheLastLineWhereThatChangesNothing) {
  EXPECT_EQ(LayOutScript("BEGIN:\nINC A ;x").m_text, "BEGIN:\n    INC A  ;x\n");
  EXPECT_EQ(LayOutScript("; alone").m_text, "; alone\n");
}

// Bytes beyond ASCII are text inside quotes and in comments.
TEST(LayoutTest, KeepsKoreanTextsAndComments) {
  EXPECT_EQ(LayOutScript("EQU  T \"\xB0\xA1\tx\";\xB0\xA1 \n").m_text,
            "EQU T \"\xB0\xA1\tx\"  ;\xB0\xA1\n");
  EXPECT_EQ(LayOutScript("BEGIN:\nPRINT  \"\xB0\xA1\"\n").m_text,
            "BEGIN:\n    PRINT \"\xB0\xA1\"\n");
}

// A comment that mentions END: begins the main section, where it stands in column 0 or 4.
TEST(LayoutTest, FollowsTheReadersSections) {
  EXPECT_EQ(LayOutScript(";END:\n VAR   A% 1\n").m_text, "    ;END:\n    VAR A%1\n");
}

}  // namespace
}  // namespace kvl
