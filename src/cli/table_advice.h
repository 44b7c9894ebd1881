// What keeps a script's PUT and GET from having an effect, told before the script runs.
#pragma once

#include <string>
#include <string_view>

namespace kvl::cli {

// What is wrong with the table of that name (in code page 949) as the script's PUT and GET want
// it, and what to do; empty if nothing is. Tags whose names the script finds at run time are not
// looked at. The script has passed verification.
std::string AdviseOnTable(const std::string& table, std::string_view script);

}  // namespace kvl::cli
