// The faults of a script as a person wants them: file, line, message, and a marker in the source.
#pragma once

#include <string>
#include <string_view>

#include "cli/commands.h"
#include "cli/output.h"
#include "verifier/KVLSyntax.h"

namespace kvl::cli {

enum class ELanguage { Korean, English };

// "ko" or "en"; anything else stands for the language of the user's locale.
ELanguage LanguageOf(const std::string& name);

// Prints every fault on standard error, by line. `painter` is that stream's. Lines are counted as
// editors count them, also where the verifier counts the pieces of a line of more than 255 bytes.
void PrintFaults(const std::string& script, const CKVLSyntax& syntax, ELanguage language,
                 const CPainter& painter);

// Verifies a script that was read already and prints its faults. Whether there were none.
bool PassesVerification(const std::string& script, std::string_view text, const CContext& context);

}  // namespace kvl::cli
