// Code page 949, the encoding of scripts, messages and tag names inside the library, and the
// Unicode forms that the outside world wants.
// Threads: every function may be called from any thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/api.h"

namespace kvl {

// UTF-8 of the given bytes. Each byte that code page 949 can't decode becomes U+FFFD.
KVL_API std::string Utf8FromCp949(std::string_view bytes);

// Code page 949 of a UTF-8 text into `bytes`. False, with `bytes` untouched, if the text is not
// UTF-8 or holds a character that the code page lacks.
KVL_API bool Cp949FromUtf8(std::string_view text, std::string& bytes);

// UTF-16 of the given bytes, without a terminator, into `wide`. False, with `wide` untouched, if
// a byte can't be decoded.
KVL_API bool Utf16FromCp949(std::string_view bytes, std::u16string& wide);

// UTF-8 of a UTF-16 text. Each unpaired surrogate becomes U+FFFD.
KVL_API std::string Utf8FromUtf16(std::u16string_view wide);

}  // namespace kvl
