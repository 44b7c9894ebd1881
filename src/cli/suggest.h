// Help for a slip of the keyboard on the command line.
#pragma once

#include <CLI/CLI.hpp>
#include <span>
#include <string>
#include <vector>

namespace kvl::cli {

// The word that a user who typed `typed` most likely meant, or nothing if none is near.
std::string NearestWord(const std::string& typed, const std::vector<std::string>& words);

// What is wrong with the first command or option in `arguments` that `program` does not know, and
// the nearest one that it does; empty if it knows them all.
std::string UnknownWord(const CLI::App& program, std::span<const char* const> arguments);

}  // namespace kvl::cli
