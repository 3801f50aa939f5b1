#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "programs/server/history/SettingsFilter.h"
#include "programs/server/persistence/KeptHistory.h"
#include "tavix/core/IniFile.h"

namespace tavix::daemon {

// Makes the answer to a `history` request: a page of entries.
//
// Threads: one at a time.
// Errors:  as KeptHistory.
class HistoryPage {
 public:
  static constexpr size_t kMaxBytes = 256 * 1024;  // that one page looks at

  HistoryPage(const KeptHistory& history, SettingsFilter filter) : _history(history), _filter(std::move(filter)) {}

  // Of revisions below this one.
  core::IniFile Read(uint64_t revision, size_t maxEntries);

 private:
  void AddBlock(const KeptHistory::Block& block, size_t maxEntries);
  bool Shows(KeptHistory::Item& item) const;

  const KeptHistory& _history;
  const SettingsFilter _filter;
  core::IniFile _answer;
  size_t _entries = 0;
  uint64_t _next = 0;  // all revisions from this one on were looked at
};

}  // namespace tavix::daemon
