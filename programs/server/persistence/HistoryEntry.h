#pragma once

#include <cstdint>
#include <string>

#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// What one saved change did to the user settings, and who made it. A group without keys in one of the documents stands
// for itself: an empty group.
struct HistoryEntry {
  uint64_t revision = 0;
  int64_t time = 0;      // nanoseconds since the epoch
  std::string command;   // the word of the request; "-": there was none
  std::string by;        // unix|tcp|local|daemon UID GID PID; "-" for what is not known
  std::string note;      // empty: none
  std::string trial;     // on which the change was put, or which it reverts; empty: none
  core::IniFile was;     // what was there before, and is not any more, or not with that value
  core::IniFile wasNot;  // what was not there before; the values are empty
  core::IniFile is;      // what is there since, and was not before, or not with that value

  bool IsEmpty() const { return was.IsEmpty() && wasNot.IsEmpty(); }
};

// Null: there is no such group.
const core::IniFile::KeyMap* FindGroup(const core::IniFile& document, const std::string& name);

// Adds what became of a group. null: it is not there.
void AddDifference(const std::string& group, const core::IniFile::KeyMap* before, const core::IniFile::KeyMap* after,
                   HistoryEntry& entry);

// Brings a document back to what it was before the change.
void Undo(const HistoryEntry& entry, core::IniFile& document);

}  // namespace tavix::daemon
