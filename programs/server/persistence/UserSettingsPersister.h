#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "programs/common/Deadline.h"
#include "programs/server/persistence/DurabilityGate.h"
#include "programs/server/persistence/HistoryFile.h"
#include "programs/server/persistence/JournalSyncer.h"
#include "programs/server/persistence/KeptHistory.h"
#include "programs/server/persistence/SharedUserLayer.h"
#include "programs/server/persistence/SnapshotWriter.h"
#include "programs/server/persistence/UserSettingsFiles.h"
#include "tavix/core/IniFile.h"
#include "tavix/settings/server/ClientIdentity.h"
#include "tavix/settings/server/ISettingsPersister.h"

namespace tavix::daemon {

// What a store is loaded from beside the user settings.
class ILayerSources {
 public:
  virtual ~ILayerSources() = default;

  // As ISettingsPersister.
  virtual void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) = 0;

  // The user settings that the store is about to get.
  virtual void OnUserSettingsFound(const FoundUserSettings& found) { static_cast<void>(found); }
};

// Keeps the user layer on the disk, as a snapshot and a journal of the changes since: docs/persistence.md. A change
// costs what it is long, however large the layer is; when the journal outgrows the snapshot, a new snapshot is made
// beside the service.
//
// In order: the store loads the user layer; Start begins to write; saves come, each under the store's lock; LimitEnd
// begins the daemon's end; Finish, or Stop for what is like a crash, ends the threads. A save appends one record to the
// journal and returns; the gate holds output that shows the change until "JournalSync" has synced the record
// (JournalSyncer). "Snapshot" writes snapshots, and what is to be logged (SnapshotWriter). These three share
// SharedUserLayer, and UserLayerState decides what an event means to them.
//
// Survives: a crash of the daemon loses nothing that anybody was shown. After a power cut the layer is as it was
//           after some change, whole, and with Durability::kAlways that is the last one that anybody was shown, or a
//           later one. Not promised: with kInterval the changes of that interval, with kNone those that the system
//           had not written; and after the disk has failed, until the log says that it is well again, those since.
// Threads:  saves and the reader that is passed to Start run under the store's lock; FindLastTicket and the gate
//           are for any thread; the rest is called by one.
// Errors:   none leave a save. What goes wrong, refused memory included, is logged with its file and reason, changes
//           are served from memory, no output waits for the disk, and a snapshot is tried after 1 s, later up to 60 s,
//           until the disk has it. Loading throws UserSettingsRefused, and what the sources throw.
class UserSettingsPersister : public settings::server::ISettingsPersister {
 public:
  using LayerReader = SnapshotWriter::LayerReader;

  // The end takes too long, since the disk hangs. isSaved: whether it has everything all the same. On a thread of its
  // own; no lock of the store or the persister is held or needed.
  using LateEnd = std::function<void(bool isSaved)>;

  // sources: outlive the object.
  UserSettingsPersister(UserLayerSetup setup, ILayerSources& sources);

  // Nothing is saved any more.
  ~UserSettingsPersister() override;

  UserSettingsPersister(const UserSettingsPersister&) = delete;
  UserSettingsPersister& operator=(const UserSettingsPersister&) = delete;

  // The store's. The user settings are loaded once, first.
  void LoadDefaultSettings(settings::server::SettingsCombiner& combiner) override;
  void LoadUserSettings(settings::server::SettingsCombiner& combiner) override;
  void SaveUserSettings(const core::IniFile& userSettings) override;
  DurabilityGate::Ticket SaveChangedGroups(const core::IniFile& userSettings,
                                           const std::set<std::string>& changedGroups) override;
  DurabilityGate::Ticket SaveAddedSettings(const core::IniFile& userSettings,
                                           const std::set<std::string>& changedGroups,
                                           const core::IniFile& added) override;
  DurabilityGate::Ticket SaveChange(const SavedChange& change) override;
  bool NeedsOldSettings() const override;
  bool NeedsWholeUserSettings() const override { return false; }
  void PrepareChange(const settings::server::PlannedChange& change) override;
  DurabilityGate::Ticket FindLastTicket(const settings::common::GroupNameMatcher& groups) override;

  // Saves that a trial went back without a change. end: does it in the setup's trials; may throw. Under the store's
  // read lock. Returns a ticket, as a save does.
  DurabilityGate::Ticket SaveTrial(const std::function<void()>& end) { return _layer.SaveTrial(end); }

  // Confirms a trial of the setup. Under the store's read lock. Returns a ticket that becomes durable when that is on
  // the disk, whatever the durability is, or when the disk fails. Throws settings::server::RefusedChange when the
  // client may not, or the disk takes no changes: then it is pending still.
  DurabilityGate::Ticket ConfirmTrial(const std::string& name, const settings::server::ClientIdentity& client) {
    return _layer.ConfirmTrial(name, client);
  }

  // Begins to write; readLayer: is called until Finish.
  void Start(LayerReader readLayer);

  // Calls "onLate", which may end the process, when Finish has not returned within that time from now on. The first
  // call counts. To be called before anything that may wait for a writer: a write to a disk that hangs holds locks.
  void LimitEnd(std::chrono::milliseconds limit, LateEnd onLate);

  // Ends the threads and leaves one snapshot that holds everything. False when there are changes that are not on the
  // disk.
  bool Finish();

  // Ends the threads; nothing is saved any more. A second call does nothing.
  void Stop();

  DurabilityGate& GetGate() { return _layer.GetGate(); }

  // What is known of earlier changes, for any thread once the user settings are loaded. Null: history is off.
  const KeptHistory* GetHistory() const { return NeedsOldSettings() ? &_keptHistory : nullptr; }

 private:
  bool WriteTheLast();
  void LoadHistory(FoundUserSettings& found);
  void LoadTrials(FoundUserSettings& found);

  ILayerSources& _sources;
  UserSettingsFiles _files;
  HistoryFile _history;
  TrialFile _trials;
  SharedUserLayer _layer;
  const KeptHistory _keptHistory;
  std::unique_ptr<JournalSyncer> _syncer;           // null: not started
  std::unique_ptr<SnapshotWriter> _snapshotWriter;  // null: not started
  std::optional<programs::Deadline> _deadline;      // empty: the end has no limit
};

}  // namespace tavix::daemon
