#include "programs/server/persistence/UserSettingsPersister.h"

#include <exception>
#include <utility>

#include "programs/server/persistence/SaveFailure.h"
#include "programs/server/trials/SharedTrials.h"
#include "tavix/core/Logger.h"
#include "tavix/settings/server/SettingsCombiner.h"

namespace tavix::daemon {

using core::IniFile;
using settings::server::SettingsCombiner;

UserSettingsPersister::UserSettingsPersister(UserLayerSetup setup, ILayerSources& sources)
    : _sources(sources),
      _files(setup.files, setup.path),
      _history(setup.files, setup.path, setup.historyBytes),
      _trials(setup.files, setup.path),
      _layer(std::move(setup)),
      _keptHistory(_layer, _history) {}

UserSettingsPersister::~UserSettingsPersister() {
  Stop();
}

void UserSettingsPersister::LoadDefaultSettings(SettingsCombiner& combiner) {
  _sources.LoadDefaultSettings(combiner);
}

void UserSettingsPersister::LoadUserSettings(SettingsCombiner& combiner) {
  FoundUserSettings found = _files.Find(true);
  const bool isNewJournalLeft =
      !found.history.entries.empty() && !found.mustBeWritten && !UserSettingsFiles::IsNewJournalUsed(found);
  if (NeedsOldSettings()) {
    LoadHistory(found);
  } else {
    _layer.Load(found);
  }
  if (isNewJournalLeft) _files.RemoveNewJournal();
  if (_layer.GetSetup().trials) LoadTrials(found);
  const core::Logger* const log = core::Logger::GetLogger("UserSettings");
  for (const std::string& problem : found.problems) log->Error("%s", problem.c_str());
  for (const std::string& notice : found.notices) log->Warning("%s", notice.c_str());
  _sources.OnUserSettingsFound(found);
  combiner.LoadFromIni(std::move(found.settings));
}

// A journal that does not go on loses its name to the next one, or at once. Where the one that goes on follows another,
// that one has lost its name.
void UserSettingsPersister::LoadHistory(FoundUserSettings& found) {
  const bool goesOn = found.journal && !found.mustBeWritten;
  const uint64_t historyEnd = _history.Load(found.history.GetFirst(), found.problems);
  found.history.DropEntries([this](uint64_t revision) { return _history.Has(revision); });
  found.history.UseSnapshot(historyEnd);
  _layer.Load(found, historyEnd);
  const uint64_t last = goesOn ? found.history.snapshotRevision.value_or(0) : found.history.GetRevision();
  const HistoryItems items = _layer.GetHistoryUpTo(last);
  if (goesOn && items.empty()) return;
  try {
    _history.Append(items, found.problems);
    _layer.DropHistoryUpTo(last);
  } catch (const std::exception& exception) {
    found.problems.push_back(ReasonOf(exception));
  }
}

void UserSettingsPersister::LoadTrials(FoundUserSettings& found) {
  SharedTrials& trials = *_layer.GetSetup().trials;
  trials.Load(_trials.Load(found.snapshot, found.problems));
  trials.Load(found.trials);
}

void UserSettingsPersister::SaveUserSettings(const IniFile& userSettings) {
  std::set<std::string> all;
  for (const auto& group : userSettings) all.insert(all.end(), group.first);
  SaveChangedGroups(userSettings, all);
}

DurabilityGate::Ticket UserSettingsPersister::SaveChangedGroups(const IniFile& userSettings,
                                                                const std::set<std::string>& changedGroups) {
  return SaveAddedSettings(userSettings, changedGroups, IniFile());
}

DurabilityGate::Ticket UserSettingsPersister::SaveAddedSettings(const IniFile& userSettings,
                                                                const std::set<std::string>& changedGroups,
                                                                const IniFile& added) {
  return SaveChange({userSettings, changedGroups, added, {}});
}

DurabilityGate::Ticket UserSettingsPersister::SaveChange(const SavedChange& change) {
  const SharedTrials* const trials = _layer.GetSetup().trials;
  const bool isAboutTrials = trials && trials->IsPrepared();
  if (change.changedGroups.empty() && change.added.IsEmpty() && !isAboutTrials) return 0;
  return _layer.Save(change);
}

void UserSettingsPersister::PrepareChange(const settings::server::PlannedChange& change) {
  if (_layer.GetSetup().trials) _layer.GetSetup().trials->Prepare(change);
}

bool UserSettingsPersister::NeedsOldSettings() const {
  return _layer.GetSetup().historyBytes > 0;
}

DurabilityGate::Ticket UserSettingsPersister::FindLastTicket(const settings::common::GroupNameMatcher& groups) {
  return GetGate().FindLast(&groups);
}

void UserSettingsPersister::Start(LayerReader readLayer) {
  _syncer = std::make_unique<JournalSyncer>(_layer, readLayer);
  _snapshotWriter = std::make_unique<SnapshotWriter>(_layer, _files, _history, _trials, std::move(readLayer));
}

void UserSettingsPersister::Stop() {
  _layer.Stop();
  if (_syncer) _syncer->AwaitEnd();
  if (_snapshotWriter) _snapshotWriter->AwaitEnd();
}

void UserSettingsPersister::LimitEnd(std::chrono::milliseconds limit, LateEnd onLate) {
  if (_deadline) return;
  try {
    _deadline.emplace(limit, [this, onLate = std::move(onLate)] { onLate(_layer.IsSaved()); });
  } catch (const std::exception& exception) {
    _layer.GetLog().AddWarning(ReasonOf(exception));  // then it takes as long as it takes
  }
}

bool UserSettingsPersister::Finish() {
  Stop();
  const bool isSaved = WriteTheLast();
  _layer.GetLog().Write();
  _deadline.reset();
  return isSaved;
}

// A journal that holds everything is as good; it stays when the snapshot can't be written.
bool UserSettingsPersister::WriteTheLast() {
  bool isWhole = !_layer.NeedsLastSnapshot();
  try {
    isWhole = isWhole || _snapshotWriter->Write();
    if (isWhole) {
      _snapshotWriter->WriteRestOfHistory();
      _files.RemoveJournals();
    } else {
      _syncer->WriteRest();
    }
    return !_layer.HasFailed();
  } catch (const std::exception& exception) {
    _layer.GetLog().AddWarning(ReasonOf(exception));
    return isWhole;
  }
}

}  // namespace tavix::daemon
