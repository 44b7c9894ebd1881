// Scripts in memory, and what the verifier says of them in short words.
#pragma once

#include <fmt/format.h>

#include <memory>
#include <string>
#include <string_view>

#include "verifier/KVLSyntax.h"

namespace kvl {

inline std::unique_ptr<CKVLSyntax> Verify(std::string_view text) {
  auto syntax = std::make_unique<CKVLSyntax>();
  syntax->_CompileMainScript1(syntax->LoadText(text));
  syntax->_VerifyMainScript();
  return syntax;
}

// "line id", with "(shown)" behind it if the message shows something; faults parted by "; ".
inline std::string Faults(const CKVLSyntax& syntax) {
  std::string text;
  for (const CFault& fault : syntax.Errors()) {
    if (!text.empty()) text += "; ";
    text += fmt::format("{} {}", fault.m_nLine, TextOf(fault.m_message).m_name);
    if (!fault.m_strShown.empty()) text += fmt::format("({})", fault.m_strShown);
  }
  return text;
}

inline std::string Faults(std::string_view text) {
  return Faults(*Verify(text));
}

}  // namespace kvl
