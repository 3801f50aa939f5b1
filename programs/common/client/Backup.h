#pragma once

#include <set>
#include <string>

#include "programs/common/client/Session.h"
#include "tavix/core/IniFile.h"

// Groups are names and '*' patterns; without any, all groups are meant.
namespace tavix::programs {

// Where the store keeps, in the user layer, what clients deleted: its values are names and patterns.
constexpr char kDeletedGroups[] = "TavixSettings/Data/DeletedGroups";

// Settings text or JSON. source: what errors call it. Throws Failure, kExitBadInput, with the place.
core::IniFile ParseDocument(const std::string& text, const std::string& source);

// Comments for the front of a backup: a line for each group or pattern that it was made of, or one for all groups.
std::string DescribeCoverage(const std::set<std::string>& groups);

// A comment for the end of a backup.
std::string MarkEnd();

// The groups and patterns that such comments in a text name; none where it covers all.
std::set<std::string> ReadCoverage(const std::string& text);

// Whether a text reports what it covers and is only the beginning of that: its last line does not mark the end.
bool IsCutOff(const std::string& text);

// What a backup of the store holds: what readers see, or the user layer. Restricted groups, which no client could bring
// back, are left out unless groups were named. leftOut: how many.
core::IniFile ReadStore(Session& session, const std::set<std::string>& groups, bool isUserLayer, size_t& leftOut);

// The same group by group, as Session::GetEach. Returns how many were left out.
size_t ReadStoreEach(Session& session, const std::set<std::string>& groups, bool isUserLayer,
                     const Session::TakeGroup& take);

// The part of a document that groups and patterns mean; all of it without any.
core::IniFile SelectGroups(core::IniFile settings, const std::set<std::string>& groups);

// The same of a user layer: of the record of what was deleted, the groups and patterns that are meant, even where a
// pattern matches the name of the record too.
core::IniFile SelectUserGroups(core::IniFile layer, const std::set<std::string>& groups);

}  // namespace tavix::programs
