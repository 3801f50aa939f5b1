#pragma once

#include <set>
#include <string>
#include <vector>

#include "programs/cli/session/Session.h"
#include "tavix/core/IniFile.h"

namespace tavix::cli {

// Where the store keeps, in the user layer, what clients deleted: its values are names and patterns.
constexpr char kDeletedGroups[] = "TavixSettings/Data/DeletedGroups";

// A file of settings text or JSON, "-" for standard input. Throws Failure, kExitBadInput, with the place.
core::IniFile ReadDocument(const std::string& path);

// What a backup of the store holds: what readers see, or the user layer. Restricted groups, which no client could bring
// back, are left out unless groups were named. leftOut: how many.
core::IniFile ReadStore(Session& session, const std::vector<std::string>& groups, bool isUserLayer, size_t& leftOut);

// The part of a document that groups and patterns mean; all of it without any.
core::IniFile SelectGroups(const core::IniFile& settings, const std::vector<std::string>& groups);

}  // namespace tavix::cli
