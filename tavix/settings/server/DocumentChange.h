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

// Sets every value of "change" in the document, as MergeSettings does, by moving it there; replaced values are left in
// "change", which is of no other use any more. Adds the groups that did not hold all of the change before to "changed",
// unless it is null.
void MoveValues(core::IniFile& document, DocumentTally& tally, core::IniFile& change, std::set<std::string>* changed);

// Whether the document holds every value of the group. A group without keys asks for nothing.
bool HoldsValues(const core::IniFile& document, core::IniFile::const_iterator group);

// The groups of which "change" sets something that "document" does not hold; a group without keys sets itself.
std::set<std::string> FindGroupsToChange(const core::IniFile& document, const core::IniFile& change);

// Adds the groups of "before" that "after" does not hold just so to "different", and takes the others out of it.
void CompareGroups(const core::IniFile& before, const core::IniFile& after, std::set<std::string>& different);

// A change's values, copied for each of a store's documents before its lock is taken. Not made when there are few
// values: then they are copied right into the documents.
struct ValueCopies {
  ValueCopies(const core::IniFile& settings, bool isForUser);

  const bool areMade;
  const size_t bytes;  // that the settings take in a document, as the store's account counts them
  core::IniFile all;
  core::IniFile user;
};

// What a change takes out of a store's documents, to be destroyed once its lock is released.
struct RemovedGroups {
  core::IniFile all;
  core::IniFile user;
};

}  // namespace tavix::settings::server
