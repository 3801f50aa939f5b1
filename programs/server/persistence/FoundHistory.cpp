#include "programs/server/persistence/FoundHistory.h"

#include <iterator>
#include <utility>
#include <vector>

#include "programs/server/persistence/HistoryText.h"

namespace tavix::daemon {

using core::IniFile;

namespace {

// What stands now in the place of these settings.
void AddNewValues(const IniFile& touched, const IniFile& after, IniFile& values) {
  for (const auto& [name, keys] : touched) {
    const auto group = after.GetGroups().find(name);
    if (group == after.GetGroups().end()) continue;
    if (keys.empty() && group->second.empty()) values[name];
    for (const auto& setting : keys) {
      const auto now = group->second.find(setting.first);
      if (now != group->second.end()) values[name].insert(*now);
    }
  }
}

// A record of several changes has their last values only: the earlier ones are those that the next entry replaced.
void FindNewValues(std::vector<HistoryEntry>& entries, std::string_view set) {
  IniFile after;
  after.LoadFromMemory(set, "journal");
  for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
    AddNewValues(entry->was, after, entry->is);
    AddNewValues(entry->wasNot, after, entry->is);
    Undo(*entry, after);
  }
}

}  // namespace

void FoundHistory::Add(std::string_view removed, std::string_view set, bool isInSnapshot) {
  std::vector<HistoryEntry> found = ReadEntries(removed);
  if (!found.empty()) FindNewValues(found, set);
  if (found.empty() && !isInSnapshot) {
    lacksEntries = snapshotRevision || !entries.empty();
  } else if (!found.empty() && found.front().revision > GetRevision() + 1) {
    lacksEntries = false;
  }
  if (!found.empty()) journalRevision = found.back().revision;
  std::move(found.begin(), found.end(), std::back_inserter(entries));
}

void FoundHistory::EndEarlier() {
  const auto isBefore = [](const auto& one, const auto& other) { return one.revision < other.revision; };
  const auto isSame = [](const auto& one, const auto& other) { return one.revision == other.revision; };
  DropEntries([this](uint64_t revision) { return revision > snapshotRevision.value_or(0); });
  std::stable_sort(entries.begin(), entries.end(), isBefore);
  entries.erase(std::unique(entries.begin(), entries.end(), isSame), entries.end());
  journalRevision = entries.empty() ? 0 : entries.back().revision;
}

}  // namespace tavix::daemon
