// The canonical layout of a script: a pure function from text to text that never changes what the
// script compiles to.
//
// Words stand one space apart, operands behind ", ". Labels and declarations begin in column 0,
// instructions in column 4; a comment line stands where the code below it stands. Neighbouring
// declarations of one kind share their columns, comments behind neighbouring lines start in one
// column. Runs of blank lines become one, blank lines at both ends go. Every line takes the line
// end of the first one. Comments and quoted texts keep their bytes; no line is added or joined.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/api.h"

namespace kvl {

// A line that stays as it was written, because laying it out could change what it means.
struct CKeptLine {
  size_t m_nLine;           // counting from 1, in the text that was given
  const char* m_pszReason;  // English, continues "line N "
};

struct CLayout {
  std::string m_text;
  std::vector<CKeptLine> m_kept;
};

// Applied to its own result it changes nothing more.
KVL_API CLayout LayOutScript(std::string_view text);

}  // namespace kvl
