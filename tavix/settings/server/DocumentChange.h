#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::settings::server {

class DocumentTally;

// Changes to large documents that take no longer than finding the places: what comes was copied before, and what goes
// is destroyed later. None of it copies or destroys a value. The document's tally is kept.

// Whether copying the document takes so long that it is worth doing before a lock is taken.
bool IsLarge(const core::IniFile& document);

// Moves the named groups to "removed", which holds none of these names.
void MoveGroups(core::IniFile& document, DocumentTally& tally, const std::set<std::string>& names,
                core::IniFile& removed);

// Whether all of the wanted keys are there with these values.
bool HoldsKeys(const core::IniFile::KeyMap& keys, const core::IniFile::KeyMap& wanted);

// Sets every key of "source" by moving it; replaced values are left in "source".
void MoveKeys(core::IniFile::KeyMap& target, core::IniFile::KeyMap& source);

// Whether the document holds every value of the group. A group without keys asks for nothing.
bool HoldsValues(const core::IniFile& document, core::IniFile::const_iterator group);

// The groups of which "change" sets something that "document" does not hold; a group without keys sets itself.
std::set<std::string> FindGroupsToChange(const core::IniFile& document, const core::IniFile& change);

// Adds the groups of "before" that "after" does not hold just so to "different", and takes the others out of it.
void CompareGroups(const core::IniFile& before, const core::IniFile& after, std::set<std::string>& different);

// What a change takes out of a store's documents, to be destroyed once its lock is released.
struct RemovedGroups {
  core::IniFile all;
  core::IniFile user;
};

}  // namespace tavix::settings::server
