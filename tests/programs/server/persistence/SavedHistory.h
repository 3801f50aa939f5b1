#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/HistoryQueue.h"
#include "programs/server/persistence/KeptHistory.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tests/programs/server/persistence/PersistedStore.h"
#include "tests/support/DocumentText.h"
#include "tests/support/MemoryFiles.h"

namespace tavix::test {

inline constexpr size_t kHistoryBytes = 4 * 1024 * 1024;

// What a daemon would find that is started on these files.
struct SavedHistory {
  explicit SavedHistory(const MemoryFiles::Image& image) {
    MemoryFiles files(image);
    daemon::FoundUserSettings found = daemon::UserSettingsFiles(files, kUserFile).Find(true);
    problems = std::move(found.problems);
    settings = TextOf(found.settings);
    daemon::HistoryFile file(files, kUserFile, kHistoryBytes);
    const uint64_t last = file.Load(found.history.GetFirst(), problems);
    found.history.DropEntries([&](uint64_t revision) { return file.Has(revision); });
    found.history.UseSnapshot(last);
    uint64_t below = daemon::KeptHistory::kNewest;
    while (const auto part = file.FindPart(below)) {
      const std::string bytes = file.ReadPart(*part, part->bytes).value_or("");
      for (daemon::HistoryReader reader(bytes); reader.Next();) Add(reader.GetLines());
      below = part->first;
    }
    daemon::HistoryQueue queue(kHistoryBytes);
    queue.Load(found.history, last);
    for (const auto& item : queue.GetUpTo(queue.GetLast()))
      Add(daemon::SpellEntry(item->revision, item->lines.change) + item->lines.now);
    std::stable_sort(entries.begin(), entries.end(),
                     [](const auto& one, const auto& other) { return one.revision < other.revision; });
  }

  std::vector<uint64_t> GetRevisions() const {
    std::vector<uint64_t> revisions;
    for (const daemon::HistoryEntry& entry : entries) revisions.push_back(entry.revision);
    return revisions;
  }

  std::vector<std::string> problems;
  std::string settings;
  std::vector<daemon::HistoryEntry> entries;  // the oldest first

 private:
  void Add(std::string_view lines) {
    for (daemon::HistoryEntry& entry : daemon::ReadEntries(lines)) entries.push_back(std::move(entry));
  }
};

}  // namespace tavix::test
