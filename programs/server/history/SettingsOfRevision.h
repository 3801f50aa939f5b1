#pragma once

#include <cstddef>
#include <cstdint>

#include "programs/server/history/EarlierSettings.h"
#include "programs/server/history/SettingsFilter.h"
#include "programs/server/persistence/HistoryEntry.h"
#include "programs/server/persistence/HistoryParts.h"
#include "programs/server/persistence/KeptHistory.h"
#include "programs/server/trials/TrialSettings.h"

namespace tavix::daemon {

// The user settings behind a change: those of now, and the old values of all that has changed since, which the history
// has.
//
// Threads: one at a time.
// Errors:  osa::Exception when an entry behind that change is missing or can't be read, when there is no such change,
//          and when the old values take too much memory; the text says which. std::bad_alloc.
class SettingsOfRevision : public EarlierSettings {
 public:
  // history, filter: outlive the object. maxBytes: of the old values, about; 0: any number.
  SettingsOfRevision(const KeptHistory& history, const SettingsFilter& filter, uint64_t revision, size_t maxBytes)
      : _history(history), _filter(filter), _revision(revision), _maxBytes(maxBytes), _known(revision) {}

  uint64_t Begin() override;
  bool BeginLocked() override;
  bool ComparePart(const settings::server::LayerView& userSettings, RollbackPlan& plan) override;

 private:
  enum class Place { kAnywhere, kMemory };

  HistoryParts::Range FindRange(Place place) const;
  bool ReadDown(Place place);
  KeptHistory::Block ReadBelow(uint64_t revision, Place place) const;
  void Add(const HistoryEntry& entry, OldSettings& settings);
  void AddDocument(const core::IniFile& document, bool wasThere, OldSettings& settings);

  const KeptHistory& _history;
  const SettingsFilter& _filter;
  const uint64_t _revision;
  const size_t _maxBytes;
  uint64_t _known;        // what follows is of the changes up to this one
  OldSettings _settings;  // that have changed since, as they were
  size_t _bytes = 0;      // of these
  OldSettings::const_iterator _next = _settings.end();
};

}  // namespace tavix::daemon
