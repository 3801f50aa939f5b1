#include "programs/server/persistence/SnapshotWriter.h"

#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "programs/common/SettingsFileNames.h"
#include "programs/server/persistence/SaveFailure.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

namespace {

constexpr int kMaxRounds = 8;
constexpr size_t kBytesAround = 512;  // a text, its first and its last line

// A power cut may come before the history has them, and leave no journal that does.
std::string SpellEntries(const HistoryItems& entries) {
  std::string text;
  for (const auto& entry : entries) text += SealEntry(entry->revision, entry->lines);
  return text;
}

}  // namespace

SnapshotWriter::SnapshotWriter(SharedUserLayer& layer, UserSettingsFiles& files, HistoryFile& history,
                               TrialFile& trials, LayerReader readLayer)
    : _layer(layer),
      _files(files),
      _history(history),
      _trials(trials),
      _readLayer(std::move(readLayer)),
      _thread(std::make_unique<programs::LoopThread>("Snapshot", [this] { Run(); })) {}

void SnapshotWriter::Run() {
  while (true) {
    switch (_layer.AwaitSnapshotWork()) {
      case SnapshotWork::kStop:
        return;
      case SnapshotWork::kLog:
        _layer.GetLog().Write();
        break;
      case SnapshotWork::kSnapshot:
        Write();
        break;
    }
  }
}

bool SnapshotWriter::Write() {
  try {
    const Text text = MakeText();
    Replace(text);
    AppendHistory(text.revision);
    TakeOver(text.snapshot);
    return true;
  } catch (const std::exception& exception) {
    _layer.FailSnapshot(ReasonOf(exception));
    return false;
  }
}

SnapshotWriter::Text SnapshotWriter::MakeText() {
  _layer.BeginToNote();
  settings::server::TextInParts layerText;
  layerText.Collect(_readLayer, [this] { return _layer.TakeChanges().TakeNames(); });
  SnapshotMoment moment;
  _readLayer([&](const settings::server::LayerView& layer) {
    layerText.Update(layer, _layer.TakeChanges().TakeNames());
    moment = _layer.BeginSnapshot();
  });
  moment.end.written = GetTimeOfSnapshot();
  const std::string entries = SpellEntries(moment.entries);
  core::StringOstream out;
  out.Reserve(layerText.CountBytes() + entries.size() + kBytesAround);
  daemon::BeginSnapshot(out);
  if (_layer.GetSetup().historyBytes > 0 || moment.revision > 0) WriteRevision(out, moment.revision);
  out.Append(entries);
  layerText.MoveTo(out);
  Text text;
  text.snapshot.id = daemon::EndSnapshot(out, moment.end);
  text.snapshot.last = moment.last;
  text.revision = moment.revision;
  text.trials = std::move(moment.trials);
  text.time = moment.end.written;
  text.bytes = out.GetText();
  text.snapshot.bytes = text.bytes.size();
  return text;
}

// The daemon's own files may have filled the disk. They give back what nobody needs, then what is there until the
// snapshot is, and then what somebody may need one day.
void SnapshotWriter::Replace(const Text& text) {
  bool hasGivenBack = false;
  while (true) {
    try {
      return ReplaceOnce(text);
    } catch (const NoRoom&) {
      if (!std::exchange(hasGivenBack, true)) {
        _layer.GiveRoomBack(text.bytes.size());
      } else if (!_layer.RemoveUselessJournal(_files) && !MakeRoom()) {
        throw;
      }
    }
  }
}

// What is on trial is known for the snapshot before it takes its place.
void SnapshotWriter::ReplaceOnce(const Text& text) {
  _trials.Write(text.snapshot.id, text.trials);
  const size_t replaced = _files.CountReplaced();
  const size_t backups = _files.CountBackups();
  std::exception_ptr failure;
  try {
    for (const std::string& notice : _files.ReplaceSnapshot(text.bytes, text.time))
      _layer.GetLog().AddWarning(notice.c_str());
  } catch (...) {
    failure = std::current_exception();
  }
  if (_files.CountBackups() > backups) _trials.OnBackedUp();
  if (_files.CountReplaced() > replaced) _trials.OnReplaced();
  if (failure) std::rethrow_exception(failure);
}

// False when nothing is left to remove.
bool SnapshotWriter::MakeRoom() {
  const std::string& path = _layer.GetSetup().path;
  const bool isOldHistory = _history.RemoveOld();
  if (!isOldHistory && !_files.RemoveBackup()) return false;
  _layer.GetLog().AddWarning(
      ("'" + (isOldHistory ? HistoryFile::OldPathOf(path) : programs::BackupOf(path)) + "'").c_str(),
      " is removed to make room: the disk is full, and the user settings come first");
  return true;
}

// What the snapshot holds will be in no journal any more. Entries before it stands could be of changes that the power
// takes back. Those that the file does not get wait for the next snapshot.
void SnapshotWriter::AppendHistory(uint64_t revision) {
  if (_layer.GetSetup().historyBytes == 0) return;
  std::vector<std::string> problems;
  try {
    _history.Append(_layer.GetHistoryUpTo(revision), problems);
    _layer.DropHistoryUpTo(revision);
  } catch (const std::exception& exception) {
    _layer.GetLog().AddWarning(ReasonOf(exception), "; the history gets the last changes later");
  }
  for (const std::string& problem : problems) _layer.GetLog().AddError(problem.c_str());
}

void SnapshotWriter::WriteRestOfHistory() {
  constexpr uint64_t kAll = std::numeric_limits<uint64_t>::max();
  if (!_layer.GetHistoryUpTo(kAll).empty()) AppendHistory(kAll);
}

// The snapshot stands, and holds all changes up to its last one; those since begin a journal of their own. Until that
// has begun, they are in the one before.
void SnapshotWriter::TakeOver(const UserLayerState::Snapshot& snapshot) {
  _layer.GetSetup().onSave(true, snapshot.bytes);
  {
    const osa::PlainMutexLock names(_layer.GetNameMutex());
    try {
      SharedUserLayer::Ticket last = snapshot.last;
      const std::shared_ptr<Journal> next = MakeNextJournal(snapshot.id, last);
      // Nothing behind the snapshot is in the journal before, which may have filled the disk.
      const bool mayTakePlace = next && !next->HasChanges();
      const bool isNone = _layer.GetSetup().durability.kind == Durability::Kind::kNone;  // no sync comes
      const bool takesPlaceUnsynced = isNone && !_layer.MustBeSyncedBehind(snapshot);
      _layer.Follow(snapshot, next, last);
      if (next && (takesPlaceUnsynced || mayTakePlace)) _layer.TakePlaceNamed(*next);
      if (!next) _layer.RemoveOldJournal();
    } catch (const std::exception& exception) {
      _layer.FailToFollow(snapshot, ReasonOf(exception), _files);
    }
  }
  _layer.GetGate().SetDurable(snapshot.last);
}

// With all that was changed meanwhile, up to the last change. Null: none is needed before the next change.
std::shared_ptr<Journal> SnapshotWriter::MakeNextJournal(const SnapshotId& snapshot, SharedUserLayer::Ticket& last) {
  if (!_layer.NeedsNextJournal()) return nullptr;
  std::shared_ptr<Journal> next = _layer.CreateNextJournal(snapshot);
  // The journal before, which may have filled the disk, stays until this one stands.
  if (next->LacksSpareRoom() && MakeRoom()) next->TakeSpareRoom();
  AppendChanges(*next);
  if (_layer.GetSetup().durability.kind != Durability::Kind::kNone) next->SyncRecords();  // leaves the next sync little
  _layer.TakeOver();
  last = AppendChanges(*next);
  return next;
}

// As JournalSyncer writes pending groups. Returns the last change that the journal holds then.
SharedUserLayer::Ticket SnapshotWriter::AppendChanges(Journal& next) {
  ChangeInParts change;
  std::optional<SharedUserLayer::Ticket> last;
  for (int round = 1; !last; ++round) {
    change.Add(_layer.TakeChanges());
    for (bool hasMore = true; hasMore;)
      _readLayer([&](const settings::server::LayerView& layer) { hasMore = change.MakePart(layer); });
    const bool isLast = round == kMaxRounds;
    _readLayer([&](const settings::server::LayerView& layer) { last = _layer.CloseChanges(change, layer, isLast); });
  }
  if (change.IsEmpty()) return *last;
  next.BeginAppend(change.Seal());
  next.WriteAppended([&](const auto& write) { change.WriteTexts(write); });
  next.EndAppend();
  return *last;
}

}  // namespace tavix::daemon
