// Files that a command writes. A reader sees the old contents or the new ones, never half of them.
#pragma once

#include <string>
#include <string_view>

namespace kvl::cli {

// Puts `text` in the place of the file's contents, or makes the file. Its mode stays; behind a
// symbolic link the file itself is replaced. Throws CCommandError if that fails, with the old
// contents in place.
void ReplaceFile(const std::string& path, std::string_view text);

// Makes the file. Throws CCommandError if something has that name already.
void CreateFile(const std::string& path, std::string_view text);

}  // namespace kvl::cli
