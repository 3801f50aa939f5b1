#pragma once

#include <cstdint>
#include <string>

#include "programs/server/persistence/HistoryEntry.h"
#include "tavix/core/IniFile.h"

// How an answer to a client shows entries of the history: docs/protocol.md.

namespace tavix::daemon {

// The name of an entry's group: its revision, with zeros before it, so that names are in the order of revisions.
std::string NameOfRevision(uint64_t revision);

// Adds keys for what changed: `was [GROUP]KEY` and `is [GROUP]KEY`.
void AddSettings(const HistoryEntry& entry, core::IniFile::KeyMap& keys);

// Adds a group for an entry. omittedBytes: not 0: the entry was not read as a whole.
void AddEntry(const HistoryEntry& entry, size_t omittedBytes, core::IniFile& answer);

}  // namespace tavix::daemon
