#include "programs/server/persistence/UserSettingsPersister.h"

#include <algorithm>
#include <exception>
#include <new>
#include <optional>
#include <utility>

#include "programs/server/persistence/Deadline.h"
#include "tavix/core/Logger.h"
#include "tavix/core/MemoryStream.h"

namespace tavix::daemon {

namespace {

constexpr uint64_t kLeastJournal = 64 * 1024;  // below that no snapshot is worth its while
constexpr size_t kFewGroups = 16;              // are written while nobody can change anything
constexpr int kMostRounds = 4;
constexpr size_t kBytesAround = 512;  // a text, its first and its last line
constexpr char kJournalGoesOn[] = "; the journal goes on, and the snapshot is tried again";

const core::Logger& Log() {
  static const core::Logger* const logger = core::Logger::GetLogger("UserSettings");
  return *logger;
}

// Asks for no memory.
const char* ReasonOf(const std::exception& exception) {
  return dynamic_cast<const std::bad_alloc*>(&exception) ? "Failed to save the user settings: out of memory"
                                                         : exception.what();
}

Change Describe(const core::IniFile& userSettings, const ChangedGroups::Changes& changes) {
  return DescribeChange(userSettings, changes.groups, changes.added);
}

// Null without memory for it.
std::optional<Change> TryToDescribe(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
                                    const core::IniFile& added) {
  try {
    return DescribeChange(userSettings, changedGroups, added);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

}  // namespace

UserSettingsPersister::UserSettingsPersister(FileSystem& files, const std::string& path, Durability durability,
                                             SaveObserver observer, UnsavedObserver unsavedObserver)
    : _filesystem(files),
      _path(path),
      _quotedPath("'" + path + "'"),
      _durability(durability),
      _observer(std::move(observer)),
      _unsavedObserver(std::move(unsavedObserver)),
      _gate(true),
      _files(files, path),
      _log(Log()),
      _watch(path, _log) {}

UserSettingsPersister::~UserSettingsPersister() {
  Stop();
}

FoundUserSettings UserSettingsPersister::Load() {
  FoundUserSettings found = _files.Find(true);
  for (const std::string& problem : found.problems) Log().Error("%s", problem.c_str());
  for (const std::string& notice : found.notices) Log().Warning("%s", notice.c_str());
  std::lock_guard<std::mutex> lock(_mutex);
  _snapshotId = found.mustBeWritten ? SnapshotId() : found.snapshot;
  _nextGeneration = found.nextGeneration;
  _snapshotBytes = found.snapshotBytes;
  if (!found.mustBeWritten) _journal = std::move(found.journal);
  _snapshotIsAsked = found.mustBeWritten;
  LetGoUnlessAlways();
  return found;
}

void UserSettingsPersister::Start(LayerReader readLayer) {
  _readLayer = std::move(readLayer);
  _sync = std::make_unique<LoopThread>("JournalSync", [this] { SyncLoop(); });
  _snapshot = std::make_unique<LoopThread>("Snapshot", [this] { SnapshotLoop(); });
}

void UserSettingsPersister::Save(const core::IniFile& userSettings, const std::set<std::string>& changedGroups,
                                 const core::IniFile& added) {
  if (changedGroups.empty() && added.IsEmpty()) return;
  const std::optional<Change> change = TryToDescribe(userSettings, changedGroups, added);
  std::lock_guard<std::mutex> lock(_mutex);
  if (_synced == _last) {
    _firstUnsynced = Clock::now();
    TellSinceWhenUnsaved(std::time(nullptr));
  }
  AddTicket(changedGroups, added);
  _changed.Note(changedGroups, added);
  if (!change) {
    Fail(ReasonOf(std::bad_alloc()));
  } else if (!_failed && _snapshotId.generation != 0 && (_journal || !_keepsChanges)) {
    Append(*change);
  } else if (!_keepsChanges) {
    AskForSnapshot();
  }
}

// The caller holds the lock, here and wherever nothing else is said.
void UserSettingsPersister::AddTicket(const std::set<std::string>& changedGroups, const core::IniFile& added) {
  try {
    std::set<std::string> groups = changedGroups;
    for (const auto& group : added) groups.insert(group.first);
    _last = _gate.Add(&groups);
  } catch (const std::bad_alloc&) {
    _last = _gate.Add(nullptr);
  }
}

void UserSettingsPersister::Append(const Change& change) {
  try {
    if (_journal) {
      _journal->Append(change);
    } else {
      OpenJournal(change);
    }
    if (!_keepsChanges) AskForSnapshotIfLong();
    if (_durability.kind != Durability::Kind::kNone) _wakeSync.notify_one();
  } catch (const std::exception& exception) {
    Fail(ReasonOf(exception));
  }
}

void UserSettingsPersister::OpenJournal(const Change& change) {
  _journal = Journal::Create(_filesystem, _path, _snapshotId, {change});
  if (_durability.kind == Durability::Kind::kNone) _journal->TakePlace();
}

void UserSettingsPersister::SyncLoop() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (AwaitSync(lock)) SyncJournal(lock);
}

// False when it is time to stop.
bool UserSettingsPersister::AwaitSync(std::unique_lock<std::mutex>& lock) {
  const auto mustSync = [this] { return _journal && _synced < _last && _durability.kind != Durability::Kind::kNone; };
  while (!_stop) {
    if (!mustSync()) {
      _wakeSync.wait(lock);
    } else if (_durability.kind == Durability::Kind::kAlways || Clock::now() >= _firstUnsynced + _durability.interval) {
      return true;
    } else {
      _wakeSync.wait_until(lock, _firstUnsynced + _durability.interval);
    }
  }
  return false;
}

void UserSettingsPersister::SyncJournal(std::unique_lock<std::mutex>& lock) {
  const std::shared_ptr<Journal> journal = _journal;
  const DurabilityGate::Ticket last = _last;
  _firstUnsynced = Clock::now();  // no change that is made from now on is older
  const std::time_t now = std::time(nullptr);
  if (_watch.Begin(_firstUnsynced)) _wakeSnapshot.notify_one();
  try {
    lock.unlock();
    journal->SyncRecords();
    const bool isInPlace = TakePlace(*journal);
    if (isInPlace) {
      journal->SyncName();
      _observer(true, 0);
      _gate.SetDurable(last);
    }
    lock.lock();
    if (_watch.End()) _wakeSnapshot.notify_one();
    if (!isInPlace) return;
    _synced = std::max(_synced, last);
    TellSinceWhenUnsaved(_synced == _last ? 0 : now);
    if (!_snapshotIsAsked && !_keepsChanges) _retry.OnSuccess();
    SayThatAllIsWell();
  } catch (const std::exception& exception) {
    if (!lock.owns_lock()) lock.lock();
    if (_watch.End()) _wakeSnapshot.notify_one();
    if (journal != _journal) return;  // a snapshot has made it worthless meanwhile
    _observer(false, 0);
    Fail(ReasonOf(exception));
  }
}

// False when the journal was given up, and the name on the way is another's by now. The caller does not hold the lock.
bool UserSettingsPersister::TakePlace(Journal& journal) {
  if (journal.IsInPlace()) return true;
  std::lock_guard<std::mutex> names(_names);
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (&journal != _journal.get() && !journal.IsInPlace()) return false;
  }
  journal.TakePlace();
  return true;
}

void UserSettingsPersister::SnapshotLoop() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (!_stop) {
    _watch.Look(Clock::now());
    if (!_log.IsEmpty()) {
      lock.unlock();
      _log.Write();
      lock.lock();
    } else if (_snapshotIsAsked && Clock::now() >= _retry.GetNextTry()) {
      lock.unlock();
      WriteSnapshot();
      lock.lock();
    } else {
      AwaitWork(lock);
    }
  }
}

void UserSettingsPersister::AwaitWork(std::unique_lock<std::mutex>& lock) {
  const std::optional<Clock::time_point> look = _watch.GetNextLook();
  if (_snapshotIsAsked) {
    _wakeSnapshot.wait_until(lock, look ? std::min(*look, _retry.GetNextTry()) : _retry.GetNextTry());
  } else if (look) {
    _wakeSnapshot.wait_until(lock, *look);
  } else {
    _wakeSnapshot.wait(lock);
  }
}

// The caller does not hold the lock.
bool UserSettingsPersister::WriteSnapshot() {
  try {
    SnapshotEnd end;
    DurabilityGate::Ticket last = 0;
    RemoveGivenUpJournal();
    BeginToNoteChanges();
    settings::server::TextInParts layerText;
    layerText.Collect(_readLayer, [this] { return TakeChanged(); });
    _readLayer([&](const core::IniFile& layer) {
      layerText.Update(layer, TakeChanged());
      std::lock_guard<std::mutex> lock(_mutex);
      end = BeginToKeepChanges();
      last = _last;
    });
    end.written = GetTimeOfSnapshot();
    core::StringOstream text;
    text.Reserve(layerText.CountBytes() + kBytesAround);
    BeginSnapshot(text);
    layerText.MoveTo(text);
    const SnapshotId id = EndSnapshot(text, end);
    ReplaceSnapshot(text.GetText(), end.written);
    TakeOver(id, text.GetText().size(), last);
    return true;
  } catch (const std::exception& exception) {
    FailSnapshot(ReasonOf(exception));
    return false;
  }
}

// Our own files may have filled the disk. They give back what nobody needs, and then what somebody may need one day.
void UserSettingsPersister::ReplaceSnapshot(const std::string& text, int64_t written) {
  enum class Room { kAsItIs, kWithoutFilling, kWithoutBackup };
  for (Room room = Room::kAsItIs;; room = room == Room::kAsItIs ? Room::kWithoutFilling : Room::kWithoutBackup) {
    try {
      for (const std::string& notice : _files.ReplaceSnapshot(text, written)) _log.AddWarning(notice.c_str());
      return;
    } catch (const NoRoom&) {
      if (room == Room::kAsItIs) {
        GiveRoomBack();
      } else if (room == Room::kWithoutBackup || !RemoveBackup()) {
        throw;
      }
    }
  }
}

// The caller does not hold the lock.
void UserSettingsPersister::GiveRoomBack() {
  std::lock_guard<std::mutex> lock(_mutex);
  for (const std::shared_ptr<Journal>& journal : {_journal, _failedJournal}) {
    try {
      if (journal) journal->GiveRoomBack();
    } catch (const std::exception& exception) {
      _log.AddWarning(ReasonOf(exception));
    }
  }
}

bool UserSettingsPersister::RemoveBackup() {
  if (!_files.RemoveBackup()) return false;
  _log.AddWarning(("'" + _path + ".bak'").c_str(),
                  " is removed to make room: the disk is full, and the user settings come first");
  return true;
}

// The caller does not hold the lock.
void UserSettingsPersister::BeginToNoteChanges() {
  std::lock_guard<std::mutex> lock(_mutex);
  _changed.Begin();
}

// The caller does not hold the lock.
std::set<std::string> UserSettingsPersister::TakeChanged() {
  std::lock_guard<std::mutex> lock(_mutex);
  return _changed.Take();
}

// It may have the room that the snapshot needs. The caller does not hold the lock.
void UserSettingsPersister::RemoveGivenUpJournal() {
  std::lock_guard<std::mutex> names(_names);
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!std::exchange(_leftNewJournal, false)) return;
    _failedJournal.reset();
  }
  _files.RemoveNewJournal();
}

// Those that are made while a snapshot is written go to the journal there is, and then to the next one. After a failure
// they go nowhere.
SnapshotEnd UserSettingsPersister::BeginToKeepChanges() {
  SnapshotEnd end;
  end.generation = _nextGeneration++;
  if (!_failed && _snapshotId.generation != 0) {
    end.journalFollows = _journal ? _journal->GetFollowed().generation : _snapshotId.generation;
    end.journalEnd = _journal ? _journal->GetEnd() : kJournalHeaderSize;
  }
  _keepsChanges = true;
  _snapshotIsAsked = false;
  return end;
}

// The snapshot stands, and holds all changes up to that one; those since begin a journal of their own. Until that has
// begun, they are in the one before. The caller does not hold the lock.
void UserSettingsPersister::TakeOver(const SnapshotId& snapshot, size_t bytes, DurabilityGate::Ticket ticket) {
  _observer(true, bytes);
  std::lock_guard<std::mutex> names(_names);
  try {
    std::shared_ptr<Journal> next = MakeNextJournal(snapshot);
    _readLayer([&](const core::IniFile& layer) {
      std::lock_guard<std::mutex> lock(_mutex);
      const bool hasChanges = _changed.Count() > 0;
      const ChangedGroups::Changes changes = _changed.TakeChanges();
      if (!next && hasChanges) next = Journal::Create(_filesystem, _path, snapshot);
      if (hasChanges) next->Append(Describe(layer, changes));
      if (next) next->Begin();
      _journal = next;
      Follow(snapshot, bytes, ticket);
      if (next) AskForSnapshotIfLong();  // so much was changed meanwhile
    });
    if (next && _durability.kind == Durability::Kind::kNone) next->TakePlace();
    if (!next) RemoveOldJournal();
  } catch (const std::exception& exception) {
    std::unique_lock<std::mutex> lock(_mutex);
    const bool mayRemove = !_journal || _journal->IsInPlace();
    if (_journal && !_failed) Follow(snapshot, bytes, ticket);
    FailToFollow(ReasonOf(exception));
    lock.unlock();
    if (mayRemove) _files.RemoveNewJournal();
  }
  _gate.SetDurable(ticket);
}

// The snapshot holds all its changes; the disk may need its room for the next one. The caller holds the names, not the
// lock, under which a journal may take its place.
void UserSettingsPersister::RemoveOldJournal() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (!_journal) RemoveQuietly(_filesystem, Journal::PathOf(_path));
}

// With most of what was changed meanwhile. Null: none is needed before the next change. The caller holds the names, not
// the lock.
std::shared_ptr<Journal> UserSettingsPersister::MakeNextJournal(const SnapshotId& snapshot) {
  std::shared_ptr<Journal> before;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    before = _journal;
    if (_changed.Count() == 0 && (_stop || !before)) return nullptr;
  }
  if (before) before->TakePlace();  // its name on the way is the new one's
  std::shared_ptr<Journal> next = Journal::Create(_filesystem, _path, snapshot);
  for (int round = 0; round < kMostRounds; ++round) {
    Change change;
    bool isWorthIt = false;
    _readLayer([&](const core::IniFile& layer) {
      std::lock_guard<std::mutex> lock(_mutex);
      isWorthIt = _changed.Count() > kFewGroups;
      if (isWorthIt) change = Describe(layer, _changed.TakeChanges());
    });
    if (!isWorthIt) break;
    next->Append(change);
  }
  return next;
}

void UserSettingsPersister::Follow(const SnapshotId& snapshot, size_t bytes, DurabilityGate::Ticket ticket) {
  EndSnapshotting();
  _snapshotIsAsked = false;
  _snapshotId = snapshot;
  _snapshotBytes = bytes;
  _leftNewJournal = false;  // the name is the next one's
  _failedJournal.reset();
  _synced = std::max(_synced, ticket);
  if (std::exchange(_failed, false)) {
    _saysWhenWell = true;
    _gate.Hold();
  }
  if (_synced == _last || _durability.kind == Durability::Kind::kNone) SayThatAllIsWell();
  if (_synced == _last) {
    _retry.OnSuccess();
    TellSinceWhenUnsaved(0);
  } else {
    _wakeSync.notify_one();
  }
  LetGoUnlessAlways();
}

// The snapshot can't have a journal of its own. The one before goes on if there is one: the snapshot names where.
void UserSettingsPersister::FailToFollow(const char* reason) {
  EndSnapshotting();
  if (!_journal) return Fail(reason);
  _log.AddWarning(reason, kJournalGoesOn);
  TryLater();
}

void UserSettingsPersister::EndSnapshotting() {
  _keepsChanges = false;
  _changed.End();
}

void UserSettingsPersister::TellSinceWhenUnsaved(std::time_t since) {
  if (_unsavedObserver && _durability.kind != Durability::Kind::kNone) _unsavedObserver(since);
}

// Until there is a snapshot that a journal can follow, a change is in memory alone: to show it would promise too much,
// whatever the durability.
void UserSettingsPersister::LetGoUnlessAlways() {
  if (_durability.kind != Durability::Kind::kAlways && _snapshotId.generation != 0) _gate.LetGo();
}

// What was synced so far stays; the journal goes on if there is one. The caller does not hold the lock.
void UserSettingsPersister::FailSnapshot(const char* reason) {
  _observer(false, 0);
  std::lock_guard<std::mutex> lock(_mutex);
  EndSnapshotting();
  if (_journal) _journal->FillAgain();
  if (_snapshotId.generation == 0 || _failed) return Fail(reason);
  _log.AddWarning(reason, kJournalGoesOn);
  TryLater();
}

// Nobody was shown what is in a journal on its way when a sync is waited for: it is of no use any more.
void UserSettingsPersister::Fail(const char* reason) {
  if (_journal && !_journal->IsInPlace() && _durability.kind == Durability::Kind::kAlways) _leftNewJournal = true;
  if (_journal) _failedJournal = std::move(_journal);
  _journal.reset();
  TryLater();
  _gate.LetGo();
  if (!std::exchange(_failed, true)) {
    _log.AddError(reason, "; changes are kept in memory and saved as soon as that is possible");
  } else {
    _log.AddWarning(reason, "; it is tried again");
  }
}

void UserSettingsPersister::SayThatAllIsWell() {
  if (!std::exchange(_saysWhenWell, false)) return;
  _log.AddWarning(_quotedPath.c_str(), " is saved again");
  _wakeSnapshot.notify_one();
}

void UserSettingsPersister::AskForSnapshot() {
  _snapshotIsAsked = true;
  _wakeSnapshot.notify_one();
}

void UserSettingsPersister::AskForSnapshotIfLong() {
  if (_journal->GetEnd() > std::max<uint64_t>(_snapshotBytes, kLeastJournal)) AskForSnapshot();
}

void UserSettingsPersister::TryLater() {
  _retry.OnFailure(Clock::now());
  AskForSnapshot();
}

void UserSettingsPersister::Stop() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stop = true;
  }
  _wakeSync.notify_all();
  _wakeSnapshot.notify_all();
  _sync.reset();
  _snapshot.reset();
}

bool UserSettingsPersister::Finish(std::chrono::milliseconds limit, const LateEnd& onLate) {
  std::optional<Deadline> deadline;
  try {
    deadline.emplace(limit, [&] { onLate(IsSaved()); });
  } catch (const std::exception& exception) {
    _log.AddWarning(ReasonOf(exception));  // then it takes as long as it takes
  }
  Stop();
  const bool isSaved = WriteTheLast();
  _log.Write();
  return isSaved;
}

bool UserSettingsPersister::WriteTheLast() {
  bool isWhole = !(_journal && _journal->HasChanges()) && !_failed && !_snapshotIsAsked;
  try {
    isWhole = isWhole || WriteSnapshot();
    if (isWhole) {
      _files.RemoveJournals();
    } else if (_journal) {
      _journal->Sync();
    }
    return !_failed;
  } catch (const std::exception& exception) {
    _log.AddWarning(ReasonOf(exception));
    return isWhole;
  }
}

bool UserSettingsPersister::IsSaved() {
  std::lock_guard<std::mutex> lock(_mutex);
  return !_failed && _snapshotId.generation != 0 && (_synced == _last || _durability.kind == Durability::Kind::kNone);
}

}  // namespace tavix::daemon
