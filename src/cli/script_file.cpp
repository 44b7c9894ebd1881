#include "cli/script_file.h"

#include <fmt/format.h>

#include <iostream>

#include "cli/commands.h"
#include "script/source_reader.h"

namespace kvl::cli {

std::string ReadScriptFile(const std::string& path) {
  std::string text;
  if (ReadScript(path.c_str(), text)) return text;
  throw CCommandError(kUsage, fmt::format("script '{}' can't be read: it must be a file of at "
                                          "most 64 MiB that you may read",
                                          path));
}

std::string ReadScriptInput() {
  std::string text;
  if (ReadScript(std::cin, text)) return text;
  throw CCommandError(kUsage, "standard input can't be read as a script of at most 64 MiB");
}

}  // namespace kvl::cli
