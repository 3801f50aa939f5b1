#pragma once

#include <string>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Takes out the groups that no list of names can hold, because their names are the list's end or have a line feed: no
// client could ask for them, or be told that they are gone. Returns a message with path and line for each.
//
// path: of the file that the document was read from.
std::vector<std::string> TakeUnlistableGroups(core::IniFile& document, const std::string& path);

// The groups that clients may change, by their names.
std::vector<std::string> FindUnrestrictedGroups(const core::IniFile& document);

// A few of them, and how many more there are.
std::string SummarizeGroups(const std::vector<std::string>& names);

}  // namespace tavix::daemon
