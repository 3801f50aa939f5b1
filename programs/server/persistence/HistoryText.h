#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "programs/server/persistence/HistoryEntry.h"
#include "tavix/settings/server/ISettingsPersister.h"

// The comment lines that say what a change did and who made it: docs/history.md.

namespace tavix::daemon {

// An entry's lines. The first line begins with the revision, which the text lacks.
struct HistoryLines {
  std::string change;  // from behind the revision to the old values
  std::string now;     // the new values; not in a journal, whose settings text has them
};

// The lines of an entry with a revision.
struct HistoryItem {
  uint64_t revision = 0;
  HistoryLines lines;
};
using HistoryItems = std::vector<std::shared_ptr<const HistoryItem>>;

// Throws std::bad_alloc.
HistoryLines EncodeEntry(const HistoryEntry& entry);

// The lines of one entry, as they stand in a journal.
std::string SpellEntry(uint64_t revision, std::string_view change);

// What a change did, without its revision. The change names what was there before. Throws std::bad_alloc.
HistoryEntry DescribeForHistory(const settings::server::ISettingsPersister::SavedChange& change, int64_t time);

// The same as lines.
struct DescribedChange {
  bool isDifferent = true;            // some user setting is another one since
  std::optional<HistoryLines> lines;  // empty: memory was refused
};
DescribedChange TryToDescribeForHistory(const settings::server::ISettingsPersister::SavedChange& change);

// What stands for changes whose entries are lost, up to its own revision; its command is this word.
HistoryEntry MakeGap();
constexpr char kGapCommand[] = "gap";

// The entries at the begin of a record's first text, in their order. What is no line of an entry is skipped.
std::vector<HistoryEntry> ReadEntries(std::string_view text);

// What an entry says before its settings: who, when, how. The lines may be cut off behind that.
HistoryEntry ReadHead(std::string_view lines);

// What begins an entry.
constexpr std::string_view kEntryMark = "#@ ";

// Where the next line begins so, from there on. npos: nowhere.
size_t FindLine(std::string_view bytes, std::string_view mark, size_t from);

// Of an entry that begins there; 0: it is none.
uint64_t RevisionOf(std::string_view lines);

}  // namespace tavix::daemon
