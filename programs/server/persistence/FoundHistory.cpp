#include "programs/server/persistence/FoundHistory.h"

#include <cstdlib>
#include <utility>
#include <vector>

#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/HistoryText.h"
#include "programs/server/persistence/JournalText.h"

namespace tavix::daemon {

using core::IniFile;

namespace {

constexpr uint64_t kMaxLost = 9999999999;  // what is damaged may claim anything

// What stands now in the place of these settings.
void AddNewValues(const IniFile& touched, const IniFile& after, IniFile& values) {
  for (const auto& [name, keys] : touched) {
    const IniFile::KeyMap* const now = FindGroup(after, name);
    if (!now) continue;
    if (keys.empty() && now->empty()) values[name];
    for (const auto& setting : keys) {
      const auto value = now->find(setting.first);
      if (value != now->end()) values[name].insert(*value);
    }
  }
}

// A record of several changes has their last values only: the earlier ones are those that the next entry replaced.
// Nobody knows those from before a gap. Returns how many at the begin these are.
size_t FindNewValues(std::vector<HistoryEntry>& entries, std::string_view set) {
  IniFile after;
  after.LoadFromMemory(set, "journal");
  for (size_t left = entries.size(); left > 0; --left) {
    HistoryEntry& entry = entries[left - 1];
    if (entry.command == kGapCommand) return left - 1;
    AddNewValues(entry.was, after, entry.is);
    AddNewValues(entry.wasNot, after, entry.is);
    Undo(entry, after);
  }
  return 0;
}

}  // namespace

uint64_t FoundHistory::GetFirst() const {
  uint64_t first = 0;
  for (const auto* some : {&entries, &inSnapshot}) {
    if (!some->empty() && (first == 0 || some->begin()->first < first)) first = some->begin()->first;
  }
  return first;
}

void FoundHistory::AddSnapshot(std::string_view text) {
  for (HistoryReader reader(text); reader.Next();) {
    for (HistoryEntry& entry : ReadEntries(reader.GetLines())) inSnapshot.emplace(entry.revision, std::move(entry));
  }
}

void FoundHistory::UseSnapshot(uint64_t fileEnd) {
  inSnapshot.erase(inSnapshot.begin(), inSnapshot.upper_bound(fileEnd));
  entries.merge(inSnapshot);
}

bool FoundHistory::Add(const JournalReader& record) {
  std::vector<HistoryEntry> found = ReadEntries(record.GetRemoved());
  if (found.empty()) return false;
  if (found.front().revision > GetRevision() + 1) lacksEntries = false;
  journalRevision = found.back().revision;
  for (size_t i = FindNewValues(found, record.GetSet()); i < found.size(); ++i)
    entries.emplace(found[i].revision, std::move(found[i]));
  return true;
}

// A record may be about trials alone, or about what only readers notice.
void FoundHistory::AddNext(const JournalReader& record, const IniFile& settings) {
  if (Add(record) || lacksEntries || !IsKnown()) return;
  lacksEntries = MakesDifference(settings, record.GetRemoved(), record.GetSet(), record.Extends());
}

void FoundHistory::EndEarlier() {
  entries.erase(entries.upper_bound(snapshotRevision.value_or(0)), entries.end());
  journalRevision = entries.empty() ? 0 : entries.rbegin()->first;
}

void FoundHistory::NoteLost(std::string_view bytes) {
  for (size_t at = FindLine(bytes, kEntryMark, 0); at != std::string_view::npos;
       at = FindLine(bytes, kEntryMark, at + 1))
    NoteLost(RevisionOf(bytes.substr(at)));
}

void FoundHistory::NoteLost(uint64_t revision) {
  if (revision <= kMaxLost) seenRevision = std::max(seenRevision, revision);
}

}  // namespace tavix::daemon
