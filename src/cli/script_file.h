// A script as the user named it on the command line.
#pragma once

#include <string>

namespace kvl::cli {

// The script's bytes. Throws CCommandError if it can't be read.
std::string ReadScriptFile(const std::string& path);

// The same of a script on standard input.
std::string ReadScriptInput();

}  // namespace kvl::cli
