#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

// What a request changed, for a log: a line such as "merge: 2 groups, 3 keys: A, Net/Eth0", and with values a line for
// each of them, such as "merge: [A]x=1". Restricted groups, which no request changes, are left out; when no others are
// left, there is no line. Many names, or values, end with a count of the others.
//
// removed: names and patterns of groups that went. settings: what was set.
std::vector<std::string> MakeChangeLines(std::string_view command, const std::set<std::string>& removed,
                                         const core::IniFile& settings, bool withValues);

}  // namespace tavix::settings::server
