// Tags on the command line: how they are named, described in files, and shown.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "cli/commands.h"
#include "cli/output.h"
#include "store/TableOwner.h"

namespace kvl::cli {

// The name of a table or tag as the library holds it. Throws CCommandError if scripts have no such
// name.
std::string NameFromUser(const std::string& name);

// The tags of a tag file. Throws CCommandError if it can't be read, or, with every fault and its
// line on standard error, if it is not right.
CTagSet ReadTagFile(const std::string& path, const CContext& context);

// "float", "int16", ...; "type 9" for one that is unknown.
std::string TypeText(const CTagImage& tag);

// A value on one line: numbers plain, texts as Printable has them, anything else in hexadecimal.
std::string ValueText(const CTagImage& tag);

// The same with texts in quotes.
std::string ShownValue(const CTagImage& tag);

// A number, a text, or null for a tag of an unknown form and for what is no number.
CJson ValueJson(const CTagImage& tag);

// What `kvl table show --json` prints of a tag.
CJson TagJson(const CTagImage& tag);

// What to add for a table that only its removal mends.
std::string AdviceToRemove(const std::string& table);

// For a table that can't be opened, with what to do about it.
[[noreturn]] void RefuseTable(const std::string& table, uint32_t dwCode);

// For a tag that can't be reached in a table that is there.
[[noreturn]] void RefuseTag(const std::string& table, const std::string& tag, uint32_t dwCode);

}  // namespace kvl::cli
