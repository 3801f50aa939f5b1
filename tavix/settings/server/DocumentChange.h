#pragma once

#include <cstddef>
#include <set>
#include <string>

#include "tavix/core/IniFile.h"
#include "tavix/settings/server/LayerView.h"

namespace tavix::settings::server {

class DocumentTally;

// Changes to large documents that take no longer than finding the places: what comes was copied before, and what goes
// is destroyed later. What changes a document copies or destroys no value, and can't fail. The document's tally is
// kept.
//
// Threads: as the documents.

// Whether copying the document takes so long that it is worth doing before a lock is taken.
bool IsLarge(const core::IniFile& document);

// Moves the named groups to "removed", which holds none of these names.
void MoveGroups(core::IniFile& document, DocumentTally& tally, const std::set<std::string>& names,
                core::IniFile& removed) noexcept;

// Whether all of the wanted keys are there with these values.
bool HoldsKeys(const core::IniFile::KeyMap& keys, const core::IniFile::KeyMap& wanted);

// How many of the wanted keys are not there, whatever their values are.
size_t CountMissingKeys(const core::IniFile::KeyMap& keys, const core::IniFile::KeyMap& wanted);

// Sets every key of "source" by moving it; replaced values are left in "source".
void MoveKeys(core::IniFile::KeyMap& target, core::IniFile::KeyMap& source) noexcept;

// Whether the document holds every value of the group. A group without keys asks for nothing.
bool HoldsValues(const core::IniFile& document, core::IniFile::const_iterator group);

// Those of the groups "removed" that hold something else once the layer has lost them and "settings" were merged into
// it. A group without keys is one, too.
std::set<std::string> FindDifference(const LayerView& layer, const std::set<std::string>& removed,
                                     const core::IniFile& settings);

// The named groups, as far as they are there.
core::IniFile CopyGroups(const LayerView& layer, const std::set<std::string>& names);

// What a change takes out of a store's documents, to be destroyed once its lock is released.
struct RemovedGroups {
  core::IniFile all;
  core::IniFile user;
};

}  // namespace tavix::settings::server
