#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Whether no list of names can hold the name, because it is the list's end or has a line feed: no client could ask for
// the group, or be told that it is gone.
bool IsUnlistableGroup(std::string_view name);

// Takes such groups out. Returns a message with path and line for each.
//
// path: of the file that the document was read from.
std::vector<std::string> TakeUnlistableGroups(core::IniFile& document, const std::string& path);

// The groups that clients may change, by their names.
std::vector<std::string> FindUnrestrictedGroups(const core::IniFile& document);

// A few of them, and how many more there are.
std::string SummarizeGroups(const std::vector<std::string>& names);

}  // namespace tavix::daemon
